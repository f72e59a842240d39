import CardReaderAgentTesting
import Foundation
import XCTest

@testable import CardReaderAgent

/// The example.
final class DoorListTests: XCTestCase {
  func testTheDoorListOpensForWhoIsOnIt() async throws {
    let products = Bundle.allBundles.first { $0.bundlePath.hasSuffix(".xctest") } ?? Bundle.main
    let folder =
      products.bundlePath.hasSuffix(".xctest")
      ? products.bundleURL.deletingLastPathComponent().path : products.bundlePath
    let virtual = try await startVirtualReader()
    let example = try AgentProcess(
      path: "\(folder)/door-list", arguments: [agentProgram], environment: virtual.env)
    let lines = Inbox()
    let output = Task {
      for await event in example.events {
        if case .line(let line) = event { await lines.put(String(decoding: line, as: UTF8.self)) }
      }
    }
    func says(_ expected: String...) async throws {
      for line in expected {
        let actual = try await lines.next()
        XCTAssertEqual(actual.trimmingCharacters(in: .whitespaces), line)
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
    try await says("searching the reader was disconnected")
    example.signal(SIGKILL)
    await output.value
    await virtual.close()
  }
}
