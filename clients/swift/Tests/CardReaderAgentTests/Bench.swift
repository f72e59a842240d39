import CardReaderAgentTesting
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

  func kill() { queue.async { [process] in process.signal(SIGKILL) } }
}

/// A virtual reader, also for builds that are not on the path.
func startVirtualReader(plugged: Bool = true) async throws -> VirtualReader {
  try await VirtualReader.start(program: virtualReader, plugged: plugged)
}

/// A folder for a test's own files, which it removes.
func makeFolder() throws -> String {
  let folder = FileManager.default.temporaryDirectory.appendingPathComponent(UUID().uuidString).path
  try FileManager.default.createDirectory(atPath: folder, withIntermediateDirectories: true)
  return folder
}

/// Makes a shell script, or what can't be run.
func makeScript(_ path: String, _ text: String, mode: Int = 0o700) {
  let made = FileManager.default.createFile(
    atPath: path, contents: Data("#!/bin/sh\n\(text)\n".utf8), attributes: [.posixPermissions: mode]
  )
  XCTAssert(made, path)
}
