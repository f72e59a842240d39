import Foundation
import XCTest

@testable import CardReaderAgent

/// One agent process, without supervision.
final class AgentTests: XCTestCase {
  func testLinesThatLookLikeOthers() {
    let lines: [(String, AgentLine)] = [
      ("Ok:", .ok("")), ("Ok:  17", .ok(" 17")), ("Ok: ", .log("Ok: ")), ("Ok:x", .log("Ok:x")),
      ("Error: a", .error("a")), ("Error:", .error("")), (" Ok:", .log(" Ok:")),
      ("Reader: Global", .reader(nil)), ("Reader: Global ", .log("Reader: Global ")),
      ("Reader: Dev7", .reader(ReaderName(bytes: Array("Dev7".utf8)))),
      ("Reader: Dev7-A:é", .reader(ReaderName(bytes: Array("Dev7-A:é".utf8)))),
      ("Reader: Dev7-", .log("Reader: Dev7-")), ("Reader: Dev-A", .log("Reader: Dev-A")),
      ("Reader: Dev7-A B", .log("Reader: Dev7-A B")), ("Reader: Dev7A", .log("Reader: Dev7A")),
      ("Card: 0FAB", .card("0FAB")), ("Card: ", .log("Card: ")), ("Card: 0fAB", .log("Card: 0fAB")),
      ("Card: no card present", .log("Card: no card present")),
      ("Log: Ok: x", .log("Ok: x")), ("Log:", .log("Log:")), ("", .log("")),
    ]
    for (line, read) in lines { XCTAssertEqual(AgentLine(Array(line.utf8)[...]), read, line) }
  }

  func testWhatCannotBeToldInALine() async throws {
    let reader = ReaderName(bytes: [UInt8(ascii: "R"), 0xe9])
    XCTAssertEqual(try AgentCommand.clearLed(reader).bytes, reader.bytes + Array(":ClearLED".utf8))
    XCTAssertEqual(try AgentCommand.ping(String(repeating: "x", count: 1011)).bytes.count, 1023)
    let lines: [() throws -> AgentCommand] = [
      { try .ping("a\nb") }, { try .ping("a\r\nb") }, { try .ping("a\0b") },
      { try .ping(String(repeating: "é", count: 506)) },
      { try .readerConfig(reader, ["a b": ["c": 1]]) },
      { try .readerConfig(reader, ["": ["c": 1]]) },
      { try .readerConfig(reader, ["a": ["b\r\n": 1]]) },
      { try .readerConfig(reader, ["a": ["": 1]]) },
      { try .readerConfig(reader, ["a.b": ["c": 1]]) },
      { try .readerConfig(reader, ["a": [".b": 1]]) },
      { try .readerConfig(reader, ["a": ["b=2": 1]]) },
    ]
    for (number, line) in lines.enumerated() {
      XCTAssertThrowsError(try line(), "\(number)") { error in
        guard case CardReaderError.invalidArgument = error else { return XCTFail("\(error)") }
      }
    }
  }

  func testWhatCannotBeStarted() async throws {
    let folder = try makeFolder()
    defer { try? FileManager.default.removeItem(atPath: folder) }
    let text = "\(folder)/text"
    XCTAssert(
      FileManager.default.createFile(
        atPath: text, contents: Data("no program".utf8), attributes: [.posixPermissions: 0o700]))
    for (path, code) in [(text, ENOEXEC), ("\(text)/x", ENOTDIR), (folder, EACCES)] {
      let reader = CardReader(path: path)
      await reader.start()
      do {
        try await reader.waitForReader(timeout: 5)
        XCTFail(path)
      } catch CardReaderError.agentStart(code: code, _) {}
      await reader.close()
    }
    let error = CardReaderError.cannotStart("A", SystemError(code: 86), wrongProcessor: 86)
    XCTAssert("\(error)".contains("cannot start A: it runs under Rosetta"))
  }

  func testHundredThousandPings() async throws {
    let virtual = try await startVirtualReader()
    for certain in [false, true] {
      let agent = CardReaderAgent(path: agentProgram, env: virtual.env, certain: certain)
      try agent.start()
      let start = Date()
      let answered = try await withThrowingTaskGroup(of: Int.self) { group in
        for task in 0..<100 {
          group.addTask {
            var answered = 0
            for number in 0..<1000
            where try await agent.ping("\(task) \(number)") == "\(task) \(number)" {
              answered += 1
            }
            return answered
          }
        }
        try await virtual.replug()
        return try await group.reduce(0, +)
      }
      XCTAssertEqual(answered, 100_000)
      print("100,000 pings, certain \(certain): \(Date().timeIntervalSince(start)) s")
      let status = await agent.close()
      XCTAssertEqual(status, .exited(0))
    }
    await virtual.close()
  }

  func testAnAgentThatStopsReadingLosesNothing() async throws {
    let virtual = try await startVirtualReader()
    let agent = CardReaderAgent(path: agentProgram, env: virtual.env)
    try agent.start()
    try await agent.ping()
    let pid = await agent.pid!
    kill(pid, SIGSTOP)
    let texts = (0..<1000).map { String($0) + String(repeating: ".", count: 1000) }
    let commands = try texts.map { agent.send(try .ping($0)) }
    let closed = Task { await agent.close() }
    try await Task.sleep(nanoseconds: 300_000_000)
    kill(pid, SIGCONT)
    for (command, text) in zip(commands, texts) {
      let answer = try await command.outcome()
      XCTAssertEqual(answer, " " + text)
    }
    let status = await closed.value
    XCTAssertEqual(status, .exited(0))
    await virtual.close()

    let folder = try makeFolder()
    defer { try? FileManager.default.removeItem(atPath: folder) }
    makeScript("\(folder)/deaf", "exec <&-; echo deaf >&2; exec sleep 600")
    let said = Inbox<String>()
    let deaf = CardReaderAgent(
      path: "\(folder)/deaf", stderr: .function { text in Task { await said.put(text) } })
    try deaf.start()
    _ = try await said.next()
    let ping = Task { try await deaf.ping() }  // whose signal would end this program
    try await Task.sleep(nanoseconds: 100_000_000)
    deaf.kill()
    let result = await ping.result
    XCTAssertThrowsError(try result.get()) { error in
      guard case CardReaderError.agentEnded(.signaled(SIGKILL)?, _) = error else {
        return XCTFail("\(error)")
      }
    }
  }

  func testThousandCyclesLeakNothing() async throws {
    let virtual = try await startVirtualReader()
    var options = CardReader.Options()
    options.env = virtual.env
    var alive: [Weak] = []
    var before = (descriptors: 0, threads: 0)
    for cycle in -50..<1000 {
      if cycle == 0 { before = inUse() }
      let reader = CardReader(path: agentProgram, options: options)
      alive.append(Weak(object: reader))
      let events = reader.events
      await reader.start()
      if cycle % 2 == 0 { try await reader.ping() }
      if cycle % 100 == 0 { try await reader.waitForReader(timeout: 5) }
      await reader.close()
      for await _ in events {}
    }
    let end = Date() + 20  // threads that wait for work take their time to go
    while Date() < end && (inUse() > before || alive.contains { $0.object != nil }) {
      try await Task.sleep(nanoseconds: 50_000_000)
    }
    let after = inUse()
    print("1000 cycles: descriptors and threads before \(before), after \(after)")
    XCTAssertLessThanOrEqual(after.descriptors, before.descriptors)
    XCTAssertLessThanOrEqual(after.threads, before.threads + 2)
    XCTAssertEqual(alive.filter { $0.object != nil }.count, 0, "a task holds them")
    await virtual.close()
  }

  func testAnAgentHasItsOwnSessionAndNoDescriptorOfAnothers() async throws {
    let folder = try makeFolder()
    defer { try? FileManager.default.removeItem(atPath: folder) }
    let script = "\(folder)/script"
    makeScript(script, "echo out of order >&2; exec cat >/dev/null")
    let said = Inbox<String>()
    signal(SIGTERM, SIG_IGN)
    defer { signal(SIGTERM, SIG_DFL) }
    let first = CardReaderAgent(path: script)
    let second = CardReaderAgent(
      path: script, stderr: .function { text in Task { await said.put(text) } },
      trace: { _, direction, line in Task { await said.put("\(direction.rawValue) \(line)") } })
    try first.start()
    try second.start()
    let pid = await second.pid!
    XCTAssertEqual(getsid(pid), pid)
    let limit = Task {
      try await Task.sleep(nanoseconds: 10_000_000_000)
      first.kill()
    }
    let closed = await first.close()  // though the second one still runs
    limit.cancel()
    XCTAssertEqual(closed, .exited(0))
    let heard = try await said.next()
    XCTAssertEqual(heard, "out of order\n")
    let ping = Task { try await second.ping("x") }
    let traced = try await said.next()
    XCTAssertEqual(traced, "> Global:Ping x")
    kill(pid, SIGTERM)  // which it does not ignore, as this program does
    let end = Task {
      try await Task.sleep(nanoseconds: 10_000_000_000)
      second.kill()
    }
    defer { end.cancel() }
    do {
      _ = try await ping.value
      XCTFail("an answer")
    } catch CardReaderError.agentEnded(let status, let reason) {
      XCTAssertEqual(status, .signaled(SIGTERM))
      XCTAssertEqual(reason, "the agent was ended by SIGTERM: out of order")
    }
  }
}

private struct Weak { weak var object: CardReader? }

private func inUse() -> (descriptors: Int, threads: Int) {
  func count(_ folder: String) -> Int {
    (try? FileManager.default.contentsOfDirectory(atPath: folder).count) ?? 0
  }
  return (count("/dev/fd"), count("/proc/self/task"))  // the second one is there on Linux
}
