import Dispatch
import Foundation
import XCTest

@testable import CardReaderAgent

private let surroundings = ProcessInfo.processInfo.environment
private let build = surroundings["BUILD_DIR"] ?? "build"
let bundle = "\(build)/CardReaderAgent.app"
let agentProgram = surroundings["AGENT"] ?? "\(bundle)/Contents/MacOS/card-reader-agent"
let virtualReader = surroundings["VIRTUAL_READER"] ?? "\(build)/virtual-reader"

struct Failure: Error, CustomStringConvertible {
  let description: String
  init(_ description: String) { self.description = description }
}

/// Values in their order, for one who waits for each.
actor Inbox<Element: Sendable> {
  private var elements: [Element] = []
  private var isOver = false

  func put(_ element: Element) { elements.append(element) }
  func finish() { isOver = true }
  var untold: [Element] { elements }

  func next(within seconds: TimeInterval = 25) async throws -> Element {
    let end = Date() + seconds
    while elements.isEmpty {
      if isOver { throw Failure("nothing more will come") }
      if Date() > end { throw Failure("nothing came within \(seconds) s") }
      try await Task.sleep(nanoseconds: 2_000_000)
    }
    return elements.removeFirst()
  }
}

/// The lines of a program that was started.
final class Program: Sendable {
  let lines = Inbox<String>()
  let status = Inbox<AgentStatus?>()
  private let process: AgentProcess
  private let queue = DispatchQueue(label: "program")

  init(_ command: [String], env: [String: String]) throws {
    let (told, tell) = AsyncStream.makeStream(of: String.self)
    let (ended, end) = AsyncStream.makeStream(of: AgentStatus?.self)
    process = try queue.sync { [queue] in
      try AgentProcess(
        path: command[0], arguments: Array(command.dropFirst()), environment: env, queue: queue,
        listener: .init(
          line: { tell.yield(String(decoding: $0, as: UTF8.self)) },
          errorOutput: { FileHandle.standardError.write(Data($0)) },
          end: {
            tell.finish()
            end.yield($0)
            end.finish()
          }))
    }
    Task { [lines, status] in
      for await line in told { await lines.put(line) }
      await lines.finish()
      for await one in ended { await status.put(one) }
    }
  }

  func write(_ text: String) { queue.async { [process] in process.write(Array(text.utf8)) } }
  func closeInput() { queue.async { [process] in process.closeInput() } }
  func kill() { queue.async { [process] in process.signal(SIGKILL) } }
}

/// A virtual reader that is told through its standard input.
final class Bench: Sendable {
  let folder: String
  let env: [String: String]
  private let process: Program

  init() throws {
    folder = NSTemporaryDirectory() + "/" + UUID().uuidString
    try FileManager.default.createDirectory(
      atPath: folder, withIntermediateDirectories: true, attributes: [.posixPermissions: 0o700])
    var env = surroundings
    env["VIRTUAL_READER_SOCKET"] = "\(folder)/reader.sock"
    self.env = env
    process = try Program([virtualReader], env: env)
  }

  /// Has the verb carried out, and returns what was printed since the one before.
  @discardableResult
  func tell(_ verb: String) async throws -> [String] {
    process.write("\(verb)\nbeeps\n")
    var told: [String] = []
    while told.last?.hasPrefix("= beeps ") != true { told.append(try await process.lines.next()) }
    return told.dropLast()
  }

  func end() async throws {
    process.closeInput()
    let status = try await process.status.next()
    try FileManager.default.removeItem(atPath: folder)
    if status != .exited(0) { throw Failure("the virtual reader: \(String(describing: status))") }
  }
}
