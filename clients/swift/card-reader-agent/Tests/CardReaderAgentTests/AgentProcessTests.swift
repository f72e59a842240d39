import Foundation
import XCTest

@testable import CardReaderAgent

final class AgentProcessTests: XCTestCase {
  func testAChildHasItsOwnSessionSignalsAndStreams() async throws {
    signal(SIGTERM, SIG_IGN)
    defer { signal(SIGTERM, SIG_DFL) }
    let first = try AgentProcess(path: "cat", environment: [:])
    let second = try AgentProcess(path: "cat", environment: [:])
    XCTAssertEqual(getsid(second.id), second.id)
    first.write(Array("one\ntwo\nrest".utf8))
    first.closeInput()  // the second would keep it open
    let (lines, status) = await output(of: first)
    XCTAssertEqual(lines, ["one", "two"])
    XCTAssertEqual(status, .exited(0))
    kill(second.id, SIGTERM)
    let end = await output(of: second).1
    XCTAssertEqual(end, .signaled(SIGTERM))
    second.write([0x0a])  // whose signal would end this program
  }

  private func output(of process: AgentProcess) async -> ([String], AgentStatus?) {
    process.wake(after: 10)
    var lines: [String] = []
    for await event in process.events {
      switch event {
      case .line(let line): lines.append(String(decoding: line, as: UTF8.self))
      case .errorOutput: break
      case .woken: process.signal(SIGKILL)
      case .ended(let status): return (lines, status)
      }
    }
    return (lines, nil)
  }
}
