import CardReaderAgentTesting
import Foundation
import XCTest

@testable import CardReaderAgent

/// Plays the cases that the clients of all languages share. $CASE chooses those with it in their name.
final class ConformanceTests: XCTestCase {
  func testCases() async throws {
    // All are made before anything is started: a child that begins while a file is written has it
    // open too for a moment, and that file can't be run.
    let programs = try makeFolder([
      "denied": "", "silent": "exec sleep 600", "dies": "echo no library here >&2; exit 13",
      "global": "echo Reader: Global; echo no library here >&2; exit 13",
      "leaves": "sleep 20 & echo Reader: Dev1-A; exec sleep 600",
    ])
    defer { try? FileManager.default.removeItem(atPath: programs) }
    var cases = try sections("conformance.txt")
    XCTAssertGreaterThan(cases.count, 30)
    if let part = environment["CASE"] { cases.removeAll { !$0.name.contains(part) } }
    // Cases that suspend this process would suspend the others too.
    let first = cases.partition { $0.lines.contains { $0.text.hasPrefix("suspend") } }
    let descriptors = try FileManager.default.contentsOfDirectory(atPath: "/dev/fd").count
    await withTaskGroup(of: Void.self) { group in
      for (index, item) in cases[..<first].enumerated() {
        if index >= 16 { await group.next() }
        group.addTask { await play(item.name, item.lines, programs) }
      }
    }
    for item in cases[first...] { await play(item.name, item.lines, programs) }
    let left = try FileManager.default.contentsOfDirectory(atPath: "/dev/fd").count - descriptors
    XCTAssertLessThan(left, 10, "descriptors are left open, after \(cases.count) cases")
  }
}

private func play(_ name: String, _ lines: [(number: Int, text: String)], _ programs: String) async
{
  var place = name
  do {
    let player = Player(try await VirtualReader.start(), programs)
    for (number, line) in lines {
      place = "\(name), line \(number): \(line)"
      try await player.play(line)
    }
    let left = await player.events.texts
    XCTAssert(left.isEmpty && player.commands.isEmpty, "\(name): left over: \(left)")
    await player.end()
  } catch { XCTFail("\(place): \(error)") }
}

private final class Player {
  let events = Inbox()  // besides `poll` and those below
  let logs = Inbox()
  private(set) var commands: [Task<String, any Error>] = []
  private var pid: Int32?
  private let virtual: VirtualReader
  private let programs: String
  private var options = CardReader.Options()
  private var program = environment["AGENT"]!
  private var reader: CardReader!
  private weak var closed: CardReader?
  private var background: Task<Void, Never>?

  init(_ virtual: VirtualReader, _ programs: String) {
    (self.virtual, self.programs) = (virtual, programs)
    options.env = virtual.env
  }

  func end() async {
    background?.cancel()
    await reader?.close()
    (closed, reader) = (reader, nil)
    for _ in 0..<500 where closed != nil { try? await sleep(.milliseconds(10)) }
    XCTAssertNil(closed, "the closed reader is still in use")
    await virtual.close()
    if let pid { XCTAssertEqual(kill(pid, 0), -1, "the agent is left") }
  }

  func play(_ line: String) async throws {
    let (step, rest) = line.cut(at: " ")
    pid = await reader?.pid ?? pid
    switch step {
    case "option": try set(&options, rest.cut(at: " ").0, rest.cut(at: " ").1)
    case "agent":
      let bundle = "\(environment["BUILD_DIR"]!)/CardReaderAgent.app"
      program = rest == "bundle" ? bundle : "\(programs)/\(rest)"
    case "!": try await virtual.execute(rest)
    case "start": try await start()
    case ">":
      commands.append(await reader.begin(try parse(rest)))
      _ = await reader.pid  // comes behind it on the actor
    case "every":
      let (milliseconds, text) = rest.cut(at: " ")
      let (pause, command) = (TimeSpan.milliseconds(Double(milliseconds)!), try parse(text))
      background = Task { [reader] in
        while (try? await sleep(pause)) != nil { _ = await reader!.begin(command) }
      }
    case "cancel": commands[0].cancel()
    case "=": try await check(commands.removeFirst(), rest)
    case "<" where rest.hasPrefix("log "):
      while try await !logs.next().contains(rest.dropFirst(4)) {}
    case "<":
      let event = try await events.next()
      let (expected, part) = rest.cut(at: ": ")
      let (actual, reason) = event.cut(at: ": ")
      try expect(actual == expected && (part.isEmpty || reason.contains(part)), event)
    case "reason":
      let reason = await reader.reason ?? ""
      try expect(rest.isEmpty ? reason.isEmpty : reason.contains(rest), reason)
    case "kill", "stop":
      try expect(kill(pid!, step == "kill" ? SIGKILL : SIGSTOP) == 0, "no agent")
    case "suspend":
      let all = "\(getpid()) \(pid!)"
      let script = "kill -STOP \(all); sleep \(Double(rest)! / 1000); kill -CONT \(all)"
      let helper = try AgentProcess(path: "/bin/sh", arguments: ["-c", script], environment: [:])
      for await _ in helper.events {}
    case "quiet":
      try await sleep(.milliseconds(Double(rest)!))
      let left = await events.texts
      try expect(left.isEmpty, "\(left)")
    case "close":
      let (start, hasFailed) = (Date(), await reader.state == .failed)
      await reader.close()
      try expect(Date().timeIntervalSince(start) < 5, "more than 5 s")
      if hasFailed { await events.put("state closed") }  // its stream of events has ended
    default: throw Failure(got: "no such step")
    }
  }

  private func start() async throws {
    reader = try CardReader(path: program, options: options)
    let stream = await reader.events()
    Task { [events, logs] in
      for try await event in stream {
        switch event {
        case .log(let text): await logs.put(text)
        case .poll: break
        default: await events.put(event.text)
        }
      }
    }
    await reader.start()
  }
}
