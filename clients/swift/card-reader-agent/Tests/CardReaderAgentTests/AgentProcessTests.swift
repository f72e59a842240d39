import Foundation
import XCTest

@testable import CardReaderAgent

final class AgentProcessTests: XCTestCase {
  func testAChildHasItsOwnSessionSignalsAndStreams() async throws {
    signal(SIGTERM, SIG_IGN)
    defer { signal(SIGTERM, SIG_DFL) }
    let first = try AgentProcess(path: "cat", environment: [:])
    let script = "exec <&-; echo closed; exec sleep 60"
    let second = try AgentProcess(path: "/bin/sh", arguments: ["-c", script], environment: [:])
    XCTAssertEqual(getsid(second.id), second.id)
    first.closeInput()  // the second would keep it open
    let firstEnd = await end(of: first)
    XCTAssertEqual(firstEnd, .exited(0))
    for await case .line in second.events { break }
    second.write([0x0a])  // whose signal would end this program
    second.closeInput()
    kill(second.id, SIGTERM)
    let secondEnd = await end(of: second)
    XCTAssertEqual(secondEnd, .signaled(SIGTERM))
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
