import Foundation
import XCTest

@testable import CardReaderAgent

let environment = ProcessInfo.processInfo.environment

/// What a step of a list came to instead of what it expects.
struct Failure: Error { let got: String }

func expect(_ isExpected: Bool, _ got: String) throws {
  if !isExpected { throw Failure(got: got) }
}

/// Texts in their order, for one task that waits for each.
actor Inbox {
  private(set) var texts: [String] = []

  func put(_ text: String) { texts.append(text) }

  func next() async throws -> String {
    for _ in 0..<12_500 where texts.isEmpty { try await sleep(.milliseconds(2)) }
    try expect(!texts.isEmpty, "nothing within 25 s")
    return texts.removeFirst()
  }
}

/// Makes a folder with shell scripts, by their names. All but `denied` can be executed.
func makeFolder(_ scripts: [String: String]) throws -> String {
  let folder = FileManager.default.temporaryDirectory.appendingPathComponent(UUID().uuidString).path
  try FileManager.default.createDirectory(atPath: folder, withIntermediateDirectories: true)
  for (name, text) in scripts {
    try "#!/bin/sh\n\(text)\n".write(toFile: "\(folder)/\(name)", atomically: true, encoding: .utf8)
    chmod("\(folder)/\(name)", name == "denied" ? 0o600 : 0o700)
  }
  return folder
}

/// The sections of one of the lists that the clients of all languages share.
func sections(_ file: String) throws -> [(name: String, lines: [(number: Int, text: String)])] {
  let clients = URL(fileURLWithPath: #filePath).pathComponents.dropLast(5).joined(separator: "/")
  let lines = try String(contentsOfFile: "\(clients)/\(file)", encoding: .utf8)
    .components(separatedBy: "\n")
  return lines.enumerated().reduce(into: []) { sections, line in
    if line.element.hasPrefix("## ") {
      sections.append((String(line.element.dropFirst(3)), []))
    } else if !line.element.isEmpty && !line.element.hasPrefix("#") {
      sections[sections.count - 1].lines.append((line.offset + 1, line.element))
    }
  }
}

/// The bytes that a text of the lists stands for.
func unescape(_ text: some StringProtocol) -> [UInt8] {
  let parts = text.components(separatedBy: "\\")
  return parts.dropFirst().reduce(into: Array(parts[0].utf8)) { bytes, part in
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
  switch (option, Double(value)) {
  case ("commandTimeout", let time?): options.commandTimeout = .milliseconds(time)
  case ("giveUpAfter", .infinity?): options.giveUpAfter = .max
  case ("giveUpAfter", _?) where Int(value) != nil: options.giveUpAfter = Int(value)!
  case ("onConnect", nil):
    let commands = try value.components(separatedBy: "; ").map(parse)
    options.onConnect = { for command in commands { _ = try await command($0) } }
  case (_, let time?) where times[option] != nil:
    options[keyPath: times[option]!] = .milliseconds(time)
  default: throw NotInSwift()
  }
}

private func none(_ result: Void) -> String { "" }

typealias Command = @Sendable (isolated CardReader) async throws -> String

/// A command as the lists have it.
func parse(_ text: String) throws -> Command {
  let (line, limit) = text.cut(at: " timeout ")
  let timeout = Double(limit).map(TimeSpan.milliseconds)
  let words = line.split(separator: " ").map { String(decoding: unescape($0), as: UTF8.self) }
  let first = words.count > 1 ? words[1] : ""
  let command: ReaderCommand
  switch words[0] {
  case "ping": command = .ping(words.dropFirst().joined(separator: " "))
  case "beep": command = .beep(Int(first)!, BeepLength(rawValue: words[2])!)
  case "led": command = .setLed(LedColor(rawValue: first)!)
  case "clearLed": command = .clearLed
  case "resetConfig": command = .resetConfig
  case "configure":
    var settings: ReaderSettings = [:]
    for word in words.dropFirst() {
      let (name, value) = word.cut(at: "=")
      guard let number = Int32(value) else { throw NotInSwift() }
      settings[name.cut(at: ".").0, default: [:]][name.cut(at: ".").1] = SettingValue(number)
    }
    command = .configure(settings)
  case "pause": return { _ in none(try await sleep(.milliseconds(Double(first)!))) }
  case "waitFor":
    return { none(try await $0.waitFor(.init(rawValue: first)!, timeout: timeout)) }
  case "waitForConnection":
    return { try await $0.waitForConnection(timeout: timeout) == $0.name ? "" : "another name" }
  default: throw Failure(got: "no such command")
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
  let isExpected = name == "ok" ? text == part : part.isEmpty || text.contains(part)
  try expect(actualName == name && isExpected, actual)
}

private func describe(_ result: Result<String, any Error>) -> String {
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
