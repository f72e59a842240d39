import CardReaderAgentTesting
import Foundation
import XCTest

@testable import CardReaderAgent

/// Plays the list of situations that the clients of all languages share.
final class SituationTests: XCTestCase {
  func testSituations() async throws {
    let hosts = URL(fileURLWithPath: #filePath).pathComponents.dropLast(4).joined(separator: "/")
    let lines = try String(contentsOfFile: "\(hosts)/conformance.txt", encoding: .utf8)
      .split(separator: "\n", omittingEmptySubsequences: false).enumerated()
    var situations: [(name: String, lines: [(number: Int, text: String)])] = []
    for (index, line) in lines {
      if line.hasPrefix("## ") {
        situations.append((String(line.dropFirst(3)), []))
      } else if !line.isEmpty && !line.hasPrefix("#") {
        situations[situations.count - 1].lines.append((index + 1, String(line)))
      }
    }
    XCTAssertGreaterThan(situations.count, 30)
    let chosen = ProcessInfo.processInfo.environment["SITUATION"]
    let programs = try makePrograms()
    defer { try? FileManager.default.removeItem(atPath: programs) }
    let failures = await withTaskGroup(of: String?.self) { group in
      var failures: [String] = []
      for (index, situation) in situations.enumerated()
      where chosen.map(situation.name.contains) ?? true {
        if index >= 6, let failure = await group.next() ?? nil { failures.append(failure) }
        group.addTask {
          do {
            try await Situation(programs).play(situation.lines)
            return nil
          } catch {
            return "\(situation.name): \(error)"
          }
        }
      }
      for await failure in group { if let failure { failures.append(failure) } }
      return failures
    }
    XCTAssert(failures.isEmpty, "\n" + failures.joined(separator: "\n"))
  }
}

/// What can take the agent's place. All are made before anything is started: a child that begins while
/// a file is written has it open too for a moment, and that file can't be run.
private func makePrograms() throws -> String {
  let folder = try makeFolder()
  makeScript("\(folder)/denied", "", mode: 0o600)
  makeScript("\(folder)/silent", "exec sleep 600")
  makeScript("\(folder)/dies", "echo no library here >&2; exit 13")
  return folder
}

private typealias Command = @Sendable (isolated CardReader) async throws -> String

private func done(
  _ command: @escaping @Sendable (isolated CardReader) async throws -> Void
) -> Command {
  { reader in
    try await command(reader)
    return ""
  }
}

extension CardReader {
  /// Begins a command; once this returns, it was sent, if there is an agent to send it to.
  fileprivate func begin(_ command: @escaping Command) -> Task<String, any Error> {
    Task { try await command(self) }
  }
}

private final class Situation {
  private let virtual: VirtualReader
  private let programs: String
  private var options = CardReader.Options()
  private var program = agentProgram
  private var reader: CardReader?
  private var listener: Task<Void, Never>?
  private let events = Inbox<CardReader.Event>()
  private let logs = Inbox<String>()
  private var commands: [Task<String, any Error>] = []
  private var cancelled = 0
  private var lastPid: Int32?

  init(_ programs: String) async throws {
    self.programs = programs
    virtual = try await startVirtualReader()
    options.env = virtual.env
  }

  func play(_ lines: [(number: Int, text: String)]) async throws {
    do {
      for (number, line) in lines {
        do {
          try await play(line)
        } catch {
          throw Failure("line \(number): \(line): \(error)")
        }
      }
      let untold = await events.untold
      if !untold.isEmpty || !commands.isEmpty {
        throw Failure("untold: \(untold), \(commands.count) outcomes")
      }
    } catch {
      await reader?.close()
      await virtual.close()
      throw error
    }
    await reader?.close()
    await listener?.value
    if let lastPid, kill(lastPid, 0) == 0 { throw Failure("the agent is left") }
    await virtual.close()
  }

  private func play(_ line: String) async throws {
    let words = line.split(separator: " ", maxSplits: 1).map(String.init)
    let rest = words.count > 1 ? words[1] : ""
    if let pid = await reader?.pid { lastPid = pid }
    switch words[0] {
    case "option": try set(rest)
    case "agent": try choose(rest)
    case "!": try await virtual.execute(rest)
    case "start": await start()
    case ">": try await begin(rest)
    case "cancel":
      commands.first?.cancel()
    case "=": try await expectOutcome(rest)
    case "<" where rest.hasPrefix("log "):
      while try await !logs.next().contains(rest.dropFirst(4)) {}
    case "<": try await expectEvent(rest)
    case "kill", "stop", "continue":
      let signals = ["kill": SIGKILL, "stop": SIGSTOP, "continue": SIGCONT]
      guard let pid = await reader?.pid, kill(pid, signals[line]!) == 0 else {
        throw Failure("no agent to signal")
      }
    case "quiet":
      try await Task.sleep(nanoseconds: UInt64(rest)! * 1_000_000)
      let untold = await events.untold
      if !untold.isEmpty { throw Failure("not quiet: \(untold)") }
    case "close": await reader?.close()
    default: throw Failure("no such line")
    }
  }

  private func set(_ option: String) throws {
    let words = option.split(separator: " ", maxSplits: 1).map(String.init)
    let seconds = (Double(words[1]) ?? 0) / 1000
    switch words[0] {
    case "restartDelay": options.restartDelay = seconds
    case "giveUpAfter": options.giveUpAfter = Int(words[1])!
    case "commandTimeout": options.commandTimeout = seconds
    case "watchdogInterval": options.watchdogInterval = seconds
    case "watchdogTimeout": options.watchdogTimeout = seconds
    case "cardRemovedAfter": options.cardRemovedAfter = seconds
    case "closeTimeout": options.closeTimeout = seconds
    case "onHang" where words[1] == "wait": options.onHang = .wait
    case "onConnect":
      let command = try command(words[1])
      options.onConnect = { _ = try await command($0) }
    default: throw Failure("no such option")
    }
  }

  private func choose(_ kind: String) throws {
    switch kind {
    case "bundle": program = bundle
    case "missing", "denied", "silent", "dies": program = "\(programs)/\(kind)"
    default: throw Failure("no such agent")
    }
  }

  private func start() async {
    let reader = CardReader(path: program, options: options)
    let (stream, events, logs) = (reader.events, events, logs)
    listener = Task {
      for await event in stream {
        switch event {
        case .log(let text): await logs.put(text)
        case .poll: break
        default: await events.put(event)
        }
      }
      await events.finish()
      await logs.finish()
    }
    self.reader = reader
    await reader.start()
  }

  private func begin(_ text: String) async throws {
    guard let reader else { throw Failure("not started") }
    commands.append(await reader.begin(try command(text)))
    _ = await reader.pid  // comes behind it, on the actor and on the agent's queue
  }

  private func command(_ text: String) throws -> Command {
    var words = text.split(separator: " ").map(String.init)
    var timeout: TimeInterval?
    if words.count > 2 && words[words.count - 2] == "timeout" {
      timeout = Double(words.removeLast())! / 1000
      words.removeLast()
    }
    let (arguments, limit) = (Array(words.dropFirst()), timeout)
    switch words[0] {
    case "ping":
      return { try await $0.ping(arguments.joined(separator: " "), timeout: limit) }
    case "beep":
      let (count, length) = (Int(arguments[0])!, BeepLength(rawValue: arguments[1])!)
      return done { try await $0.beep(count, length, timeout: limit) }
    case "led":
      let color = LedColor(rawValue: arguments[0])!
      return done { try await $0.setLed(color, timeout: limit) }
    case "clearLed": return done { try await $0.clearLed(timeout: limit) }
    case "resetConfig": return done { try await $0.resetConfig(timeout: limit) }
    case "waitForReader": return done { try await $0.waitForReader(timeout: limit) }
    case "configure":
      var settings: ReaderSettings = [:]
      for argument in arguments {
        let parts = argument.split { ".=".contains($0) }.map(String.init)
        settings[parts[0], default: [:]][parts[1]] = SettingValue(Int32(parts[2])!)
      }
      let all = settings
      return done { try await $0.configure(all, timeout: limit) }
    default: throw Failure("no such command")
    }
  }

  private func expectOutcome(_ expected: String) async throws {
    guard !commands.isEmpty else { throw Failure("no command is under way") }
    let command = commands.removeFirst()
    let outcome = Inbox<(String, [String])>()
    Task { await outcome.put(await told(command.result)) }
    let (name, words) = try await outcome.next()
    let expectedWords = expected.split(separator: " ", maxSplits: 1).map(String.init)
    let rest = expectedWords.count > 1 ? expectedWords[1] : ""
    let holds =
      name == "ok" ? words == [rest] : rest.isEmpty || words.contains { $0.contains(rest) }
    if name != expectedWords[0] || !holds { throw Failure("it was \(name) \(words)") }
  }

  private func expectEvent(_ expected: String) async throws {
    let event = try await events.next()
    var told = ""
    var why = ""
    switch event {
    case .state(let state, _, let reason): (told, why) = ("state \(state)", reason ?? "")
    case .card(let id): told = "card \(id)"
    case .cardRemoved(let id): told = "cardRemoved \(id)"
    case .hang: told = "hang"
    case .log, .poll: break
    }
    let parts = expected.components(separatedBy: ": ")
    let part = parts.dropFirst().joined(separator: ": ")
    if told != parts[0] || !(part.isEmpty || why.contains(part)) {
      throw Failure("it was \(told): \(why)")
    }
  }
}

/// An outcome's name in the words of the list, and what may stand behind it.
private func told(_ result: Result<String, any Error>) -> (String, [String]) {
  switch result {
  case .success(let text): return ("ok", [text])
  case .failure(is CancellationError): return ("cancelled", [])
  case .failure(let error):
    guard let error = error as? CardReaderError else { return ("\(error)", []) }
    let message = error.description
    switch error {
    case .noReader: return ("NoReaderError", [message])
    case .readerChanged: return ("ReaderChangedError", [message])
    case .readerFailed(let number, _):
      return ("ReaderFailedError", [number.map(String.init) ?? message])
    case .rejected: return ("RejectedError", [message])
    case .unknownSettings(let names):
      return ("UnknownSettingsError", [names.joined(separator: " ")])
    case .deadline: return ("CommandTimeoutError", [message])
    case .agentEnded: return ("AgentEndedError", [message])
    case .agentStart: return ("AgentStartError", [message])
    case .invalidArgument: return ("invalid argument", [message])
    }
  }
}
