import CardReaderAgentTesting
import Foundation
import XCTest

@testable import CardReaderAgent

let environment = ProcessInfo.processInfo.environment
let build = environment["BUILD_DIR"] ?? "build"
let agentProgram =
  environment["AGENT"] ?? "\(build)/CardReaderAgent.app/Contents/MacOS/card-reader-agent"

struct Failure: Error, CustomStringConvertible {
  let description: String
  init(_ description: String) { self.description = description }
}

/// Texts in their order, for one task that waits for each.
actor Inbox {
  private(set) var texts: [String] = []

  func put(_ text: String) { texts.append(text) }

  func next() async throws -> String {
    let end = Date() + 25
    while texts.isEmpty {
      if Date() > end { throw Failure("nothing came within 25 s") }
      try await sleep(.milliseconds(2))
    }
    return texts.removeFirst()
  }
}

func startVirtualReader() async throws -> VirtualReader {
  try await VirtualReader.start(program: environment["VIRTUAL_READER"] ?? "\(build)/virtual-reader")
}

/// Makes a folder with files, by their names. All but `denied` can be executed.
func makeFolder(_ files: [String: Data]) throws -> String {
  let folder = FileManager.default.temporaryDirectory.appendingPathComponent(UUID().uuidString).path
  try FileManager.default.createDirectory(atPath: folder, withIntermediateDirectories: true)
  for (name, data) in files {
    let mode: [FileAttributeKey: Any] = [.posixPermissions: name == "denied" ? 0o600 : 0o700]
    XCTAssert(
      FileManager.default.createFile(atPath: "\(folder)/\(name)", contents: data, attributes: mode))
  }
  return folder
}

func script(_ text: String) -> Data { Data("#!/bin/sh\ncd \"${0%/*}\"\n\(text)\n".utf8) }

/// The sections of one of the lists that the clients of all languages share.
func sections(_ file: String) throws -> [(name: String, lines: [(number: Int, text: String)])] {
  let clients = URL(fileURLWithPath: #filePath).pathComponents.dropLast(5).joined(separator: "/")
  let lines = try String(contentsOfFile: "\(clients)/\(file)", encoding: .utf8)
    .split(separator: "\n", omittingEmptySubsequences: false)
  return lines.enumerated().reduce(into: []) { sections, line in
    if line.element.hasPrefix("## ") {
      sections.append((String(line.element.dropFirst(3)), []))
    } else if !line.element.isEmpty && !line.element.hasPrefix("#") {
      sections[sections.count - 1].lines.append((line.offset + 1, String(line.element)))
    }
  }
}

/// The bytes that a text of the lists stands for.
func unescape(_ text: some StringProtocol) -> Data {
  let parts = text.components(separatedBy: "\\")
  return parts.dropFirst().reduce(into: Data(parts[0].utf8)) { bytes, part in
    let simple: UInt8? = ["n": 0x0a, "0": 0, "s": 0x20][part.prefix(1)]
    bytes.append(simple ?? UInt8(part.dropFirst().prefix(2), radix: 16)!)
    bytes += part.utf8.dropFirst(simple == nil ? 3 : 1)
  }
}

/// A value that Swift's types rule out.
struct NotInSwift: Error {}

/// Sets an option as the lists have it.
func set(_ options: inout CardReader.Options, _ option: String, _ value: String) throws {
  let times: [String: WritableKeyPath<CardReader.Options, TimeSpan>] = [
    "restartDelay": \.restartDelay, "restartDelayLimit": \.restartDelayLimit,
    "watchdogInterval": \.watchdogInterval, "watchdogTimeout": \.watchdogTimeout,
    "cardRemovedAfter": \.cardRemovedAfter, "closeTimeout": \.closeTimeout,
  ]
  let number = Double(value)
  if let time = times[option], let number {
    options[keyPath: time] = .milliseconds(number)
  } else if option == "commandTimeout", let number {
    options.commandTimeout = .milliseconds(number)
  } else if option == "giveUpAfter", let count = number == .infinity ? .max : Int(value) {
    options.giveUpAfter = count
  } else if option == "onConnect", number == nil {
    let commands = try value.components(separatedBy: "; ").map(parse)
    options.onConnect = { for command in commands { _ = try await command($0) } }
  } else {
    throw NotInSwift()
  }
}

typealias Command = @Sendable (isolated CardReader) async throws -> String

private func none(_ result: Void) -> String { "" }

/// A command as the lists have it.
func parse(_ text: String) throws -> Command {
  var words = text.split(separator: " ").map { String(decoding: unescape($0), as: UTF8.self) }
  var limit: TimeSpan?
  if words.count > 2 && words[words.count - 2] == "timeout" {
    limit = .milliseconds(Double(words.removeLast())!)
    words.removeLast()
  }
  let (timeout, first) = (limit, words.count > 1 ? words[1] : "")
  let command: ReaderCommand
  switch words[0] {
  case "ping": command = .ping(words.dropFirst().joined(separator: " "))
  case "beep": command = .beep(Int(first)!, BeepLength(rawValue: words[2])!)
  case "led": command = .setLed(LedColor(rawValue: first)!)
  case "clearLed": command = .clearLed
  case "resetConfig": command = .resetConfig
  case "configure":
    command = .configure(
      try words.dropFirst().reduce(into: [:]) { settings, word in
        let parts = word.split(separator: "=")
        let name = parts[0].split(separator: ".", maxSplits: 1, omittingEmptySubsequences: false)
        guard let number = Int32(parts[1]) else { throw NotInSwift() }
        settings[String(name[0]), default: [:]][String(name[1])] = SettingValue(number)
      })
  case "waitFor":
    return { none(try await $0.waitFor(.init(rawValue: first)!, timeout: timeout)) }
  case "waitForConnection":
    return { try await $0.waitForConnection(timeout: timeout) == $0.name ? "" : "another name" }
  case "pause": return { _ in none(try await sleep(.milliseconds(Double(first)!))) }
  default: throw Failure("no such command")
  }
  return { try await $0.execute(command, timeout: timeout) }
}

extension CardReader {
  /// Begins a command. When the actor is free again, it was sent, if there is an agent to send it to.
  func begin(_ command: @escaping Command) -> Task<String, any Error> {
    Task { try await command(self) }
  }
}

/// Waits for a command's outcome and compares it with the one that the lists have.
func check(_ command: Task<String, any Error>, _ expected: String) async throws {
  let outcome = Inbox()
  Task { await outcome.put(describe(await command.result)) }
  let actual = try await outcome.next()
  let (name, part) = expected.cut(at: " ")
  let (actualName, text) = actual.cut(at: " ")
  if actualName != name || !(name == "ok" ? text == part : part.isEmpty || text.contains(part)) {
    throw Failure("it was \(actual)")
  }
}

func describe(_ result: Result<String, any Error>) -> String {
  switch result {
  case .success(let text): return "ok \(text)"
  case .failure(is CancellationError): return "cancelled"
  case .failure(let error as CardReaderError):
    let name = error.code.split(separator: "_").map(\.capitalized).joined() + "Error"
    switch error {
    case .readerFailed(let number?, _): return "\(name) \(number)"
    case .unknownSettings(let names): return "\(name) \(names.joined(separator: " "))"
    default: return "\(name) \(error)"
    }
  case .failure(let error): return "\(error)"
  }
}

extension CardReader.Event {
  /// The event as the lists have it.
  var text: String {
    if case .state(let state, _, let reason) = self {
      return "state \(state)\(reason.map { ": \($0)" } ?? "")"
    }
    let (name, value) = Mirror(reflecting: self).children.first!
    return "\(name!) \(value)"
  }
}

extension String {
  /// What is before the first separator, and what is after it.
  func cut(at separator: String) -> (String, String) {
    guard let range = range(of: separator) else { return (self, "") }
    return (String(self[..<range.lowerBound]), String(self[range.upperBound...]))
  }
}
