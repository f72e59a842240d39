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
      let bench = try Bench()
      var env = bench.env
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
      try await bench.tell("card hold 3AB1234/26")
      try await says("Ada, come in")
      let effects = try await bench.tell("expect call BeepNow\nwait 1000\ncard remove")
      XCTAssert(effects.contains("led green"))
      XCTAssertEqual(
        effects.filter { $0.hasPrefix("beep short") }.count, 1, "she held it only once")
      try await bench.tell("expect led red\ncard queue 00")
      try await says("00: not listed")
      try await bench.tell("expect call BeepNow\nunplug")
      try await says("searching the reader has gone")
      example.kill()
      _ = try await example.status.next()
      try await bench.end()
    }
  }
}

private var products: String {
  let tests = Bundle.allBundles.first { $0.bundlePath.hasSuffix(".xctest") } ?? Bundle.main
  return tests.bundlePath.hasSuffix(".xctest")
    ? tests.bundleURL.deletingLastPathComponent().path : tests.bundlePath
}
