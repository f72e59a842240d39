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

/// A virtual reader that is told through its standard input.
final class Bench: Sendable {
  let folder: String
  let env: [String: String]
  private let process: AgentProcess
  private let queue: DispatchQueue
  private let lines = Inbox<String>()
  private let status = Inbox<AgentStatus?>()

  init() throws {
    folder = NSTemporaryDirectory() + "/" + UUID().uuidString
    try FileManager.default.createDirectory(
      atPath: folder, withIntermediateDirectories: true, attributes: [.posixPermissions: 0o700])
    var env = surroundings
    env["VIRTUAL_READER_SOCKET"] = "\(folder)/reader.sock"
    self.env = env
    let (told, put) = AsyncStream.makeStream(of: String.self)
    let (lines, status) = (lines, status)
    let (ended, end) = AsyncStream.makeStream(of: AgentStatus?.self)
    let queue = DispatchQueue(label: "bench")
    self.queue = queue
    process = try queue.sync {
      try AgentProcess(
        path: virtualReader, environment: env, queue: queue,
        listener: .init(
          line: { put.yield(String(decoding: $0, as: UTF8.self)) },
          errorOutput: { FileHandle.standardError.write(Data($0)) },
          end: {
            put.finish()
            end.yield($0)
            end.finish()
          }))
    }
    Task {
      for await line in told { await lines.put(line) }
      await lines.finish()
    }
    Task { for await one in ended { await status.put(one) } }
  }

  /// Has the verb carried out, and returns what was printed since the one before.
  @discardableResult
  func tell(_ verb: String) async throws -> [String] {
    queue.async { [process] in process.write(Array("\(verb)\nbeeps\n".utf8)) }
    var told: [String] = []
    while told.last?.hasPrefix("beeps ") != true { told.append(try await lines.next()) }
    return told.dropLast()
  }

  func end() async throws {
    queue.async { [process] in process.closeInput() }
    let status = try await status.next()
    try FileManager.default.removeItem(atPath: folder)
    if status != .exited(0) { throw Failure("the virtual reader: \(String(describing: status))") }
  }
}
