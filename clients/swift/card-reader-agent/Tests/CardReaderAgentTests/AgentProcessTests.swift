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
    first.closeInput()  // the second would keep it open
    let firstEnd = await end(of: first)
    XCTAssertEqual(firstEnd, .exited(0))
    kill(second.id, SIGTERM)
    let secondEnd = await end(of: second)
    XCTAssertEqual(secondEnd, .signaled(SIGTERM))
    second.write([0x0a])  // whose signal would end this program
  }

  private func end(of process: AgentProcess) async -> AgentStatus? {
    process.wake(after: 10)
    for await event in process.events {
      if case .woken = event { process.signal(SIGKILL) }
      if case .ended(let status) = event { return status }
    }
    return nil
  }
}
