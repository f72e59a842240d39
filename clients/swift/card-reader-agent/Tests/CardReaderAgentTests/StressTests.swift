import CardReaderAgentTesting
import Foundation
import XCTest

@testable import CardReaderAgent

/// Many commands and restarts at random; $STRESS multiplies them.
final class StressTests: XCTestCase {
  private let factor = Int(environment["STRESS"] ?? "") ?? 1

  func testNoOutcomeContradictsTheEventLog() async throws {
    let virtual = try await startVirtualReader()
    var options = CardReader.Options()
    (options.env, options.giveUpAfter) = (virtual.env, .max)
    (options.restartDelay, options.restartDelayLimit) = (0.01, 0.01)
    (options.watchdogInterval, options.watchdogTimeout) = (0.1, 0.5)
    let disturbances = [
      "fail BeepNow error 3", "fail SetLEDCtrl error 4 always", "hang BeepNow", "replug", "clear",
      "say BeepNow \"x\\nOk: done\\nOk:\\nError: y\"", "delay SetLEDCtrl 3", "clear",
    ]
    var commands: [(effect: String, task: Task<String, any Error>)] = []
    let count = 250 * factor
    try await withCardReader(path: agentProgram, options: options) { reader in
      for number in 0..<count {
        if number % 25 == 0 {
          for command in commands.suffix(20) { _ = await command.task.result }
          try await reader.waitFor(.ready, timeout: 20)
          try await virtual.execute("clear")
          try await virtual.execute(disturbances.randomElement()!)
        }
        if number % 100 == 30, let pid = await reader.pid { kill(pid, SIGKILL) }
        let beeps = Int.random(in: 1...5)
        let command = ["ping \(number)", "beep \(beeps) short", "led green"].randomElement()!
        let timeout = number % 4 > 0 ? "" : " timeout \(Int.random(in: 0...5))"
        let task = await reader.begin(try parse(command + timeout))
        commands.append((command, task))
        guard number % 7 == 0 else { continue }
        Task {
          try await sleep(.milliseconds(.random(in: 0...2)))
          task.cancel()
        }
      }
    }
    let log = try await virtual.events().compactMap { line -> String? in
      let words = line.split(separator: " ").dropFirst(2)
      return words.first == "beep"
        ? "beep \(words.last!) short" : words == ["led", "green"] ? "led green" : nil
    }
    var positions: Set = [0]  // in the log, after the commands so far
    var outcomes: [String: Int] = [:]
    for (effect, task) in commands {
      let done = Set(positions.filter { $0 < log.count && log[$0] == effect }.map { $0 + 1 })
      let result = await task.result
      switch result {
      case .success(let text) where effect.hasPrefix("ping"): XCTAssertEqual("ping \(text)", effect)
      case .success: positions = done
      case .failure(CardReaderError.noReader), .failure(CardReaderError.readerChanged),
        .failure(CardReaderError.readerFailed), .failure(CardReaderError.rejected):
        break
      case .failure: positions.formUnion(done)  // it may have been executed
      }
      outcomes[describe(result).cut(at: " ").0, default: 0] += 1
      if positions.isEmpty { return XCTFail("\(effect): \(result) is not in the log") }
    }
    XCTAssert(positions.contains(log.count), "the log has more than the commands did")
    print("\(count) commands, \(log.count) effects: \(outcomes)")
    await virtual.close()
  }

  func testRestartsLeaveNothing() async throws {
    let virtual = try await startVirtualReader()
    var options = CardReader.Options()
    (options.env, options.restartDelay) = (virtual.env, 0)
    var before: [Int] = []
    weak var released: CardReader?
    try await withCardReader(path: agentProgram, options: options) { reader in
      released = reader
      for restart in 0..<40 * factor {
        if restart == 10 { before = inUse() }
        try await reader.waitFor(.ready, timeout: 20)
        kill(await reader.pid!, SIGKILL)
        try await reader.waitFor(.restarting, timeout: 20)
      }
      print("\(40 * factor) restarts: descriptors and threads \(before), then \(inUse())")
      for (before, after) in zip(before, inUse()) { XCTAssertLessThan(after, before + 15) }
    }
    for _ in 0..<1000 where released != nil { try await sleep(.milliseconds(10)) }
    XCTAssertNil(released)
    await virtual.close()
  }

  private func inUse() -> [Int] {
    ["/dev/fd", "/proc/self/task"].map {  // the second one is there on Linux
      (try? FileManager.default.contentsOfDirectory(atPath: $0).count) ?? 0
    }
  }
}
