import Foundation
import XCTest

@testable import CardReaderAgent

/// The example, and those of the other languages beside it.
final class DoorListTests: XCTestCase {
  func testTheDoorListsSayTheSame() async throws {
    let hosts = URL(fileURLWithPath: #filePath).pathComponents.dropLast(4).joined(separator: "/")
    let python = ["python3", "\(hosts)/python/examples/door_list.py", agentProgram]
    let node = ["node", "\(hosts)/node/examples/door-list.mjs", agentProgram]
    for command in [[products + "/door-list", agentProgram], python, node] {
      let virtual = try await startVirtualReader()
      var env = virtual.env
      env["PYTHONPATH"] = "\(hosts)/python"
      env["PYTHONDONTWRITEBYTECODE"] = "1"
      let example = try Program(["/usr/bin/env"] + command, env: env)
      func says(_ expected: String...) async throws {
        for line in expected {
          let said = try await example.lines.next()
          XCTAssertEqual(said.trimmingCharacters(in: .whitespaces), line, command[0])
        }
      }
      try await says("searching", "ready")
      try await virtual.hold("3AB1234/26")
      try await says("Ada, come in")
      try await virtual.expect("led green")
      try await virtual.expect("beep short 1")
      try await virtual.expectNo("beep", within: 1)  // however long she holds it
      try await virtual.remove()
      try await virtual.expect("led red")
      try await virtual.queue("00")
      try await says("00: not listed")
      try await virtual.expect("beep short 2")
      try await virtual.unplug()
      try await says("searching the reader has gone")
      example.kill()
      _ = try await example.status.next()
      await virtual.close()
    }
  }
}

private var products: String {
  let tests = Bundle.allBundles.first { $0.bundlePath.hasSuffix(".xctest") } ?? Bundle.main
  return tests.bundlePath.hasSuffix(".xctest")
    ? tests.bundleURL.deletingLastPathComponent().path : tests.bundlePath
}
