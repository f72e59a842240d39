import Foundation
import XCTest

@testable import CardReaderAgent

/// Plays the list of lines, answers, arguments and options that the clients of all languages share.
final class LinesTests: XCTestCase {
  /// Calls the function with a reader whose agent prints the lines, answers pings, and takes its
  /// answers to `ClearLED` from the list.
  private func withAgent(
    _ lines: [String], _ answers: [String] = [], sent: Inbox = Inbox(),
    _ function: (CardReader) async throws -> Void
  ) async throws {
    let folder = try makeFolder([
      "agent": """
      printf %b "$LINES"; n=0
      while read -r line; do
        case $line in
        *ClearLED) n=$((n + 1)); eval "printf %b \\"\\$A$n\\"" ;;
        *) echo "Ok:  ${line#Global:Ping }" ;;
        esac
      done
      """
    ])
    defer { try? FileManager.default.removeItem(atPath: folder) }
    var options = CardReader.Options()
    options.cardRemovedAfter = 3600
    options.trace = { _, direction, line in
      if direction == ">" { Task { await sent.put(line) } }
    }
    options.env = ["LINES": lines.map(octal).joined()]
    for (index, answer) in answers.enumerated() { options.env!["A\(index + 1)"] = octal(answer) }
    try await withCardReader(path: "\(folder)/agent", options: options, function)
  }

  private func octal(_ text: String) -> String {
    (unescape(text) + [0x0a]).map { String(format: "\\0%03o", $0) }.joined()
  }

  func testLines() async throws {
    let rows = try rows("lines")
    let events = rows.map(\.right).filter { !$0.isEmpty }.joined(separator: "; ")
    var expected = events.components(separatedBy: "; ")[...]
    try await withAgent(rows.map(\.left)) { reader in
      for try await event in await reader.events() {
        if case .state = event { continue }
        let text = String(decoding: unescape(expected.removeFirst()), as: UTF8.self)
        XCTAssertEqual(event.text, text)
        if event.text != text || expected.isEmpty { return }
      }
    }
  }

  func testAnswersAndArguments() async throws {
    let answers = try rows("answers")
    let sent = Inbox()
    try await withAgent(["Reader: Dev1-A"], answers.map(\.left), sent: sent) { reader in
      try await reader.waitFor(.ready, timeout: 10)
      for (number, left, right) in try self.rows("arguments") {
        do {
          _ = try await parse(left)(reader)
          XCTFail("line \(number): no error")
        } catch is NotInSwift {
        } catch CardReaderError.invalidArgument(let message) {
          XCTAssert(message.contains(right), "line \(number): \(message)")
        }
      }
      for (number, _, right) in answers {
        do { try await check(reader.begin(try parse("clearLed")), right) } catch {
          XCTFail("line \(number): \(error)")
        }
      }
      for _ in 0...3 * answers.count { _ = try await sent.next() }
      let more = await sent.texts
      XCTAssertEqual(more, [], "besides the first ping and the answered commands")
    }
  }

  func testOptionsAndErrors() throws {
    for (number, left, right) in try rows("options") {
      var options = CardReader.Options()
      let (name, value) = left.cut(at: " ")
      do {
        try set(&options, name, value)
        _ = try CardReader(path: "", options: options)
        XCTAssertEqual(right, "ok", "line \(number)")
      } catch CardReaderError.invalidArgument(let message) {
        let part = Double(right).map { "\($0 / 1000)" } ?? right
        XCTAssert(message.contains(name) && message.contains(part), "line \(number): \(message)")
      } catch is NotInSwift {}
    }
    let errors: [CardReaderError] = [
      .noReader, .readerChanged(""), .readerFailed(number: 1, message: ""), .rejected(""),
      .unknownSettings([]), .commandTimeout, .notRunning, .agentStart(systemCode: "", reason: ""),
    ]
    XCTAssertEqual(errors.map(\.code), try rows("errors").map(\.right))
    for (number, code, state) in try rows("start errors") {
      let error = CardReaderError.agentStart(systemCode: code, reason: "")
      XCTAssertEqual(error.isRetryable, state == "restarting", "line \(number)")
    }
  }

  private func rows(_ section: String) throws -> [(number: Int, left: String, right: String)] {
    let lines = try sections("lines.txt").first { $0.name == section }!.lines
    return lines.map { number, text in
      let (left, right) = text.cut(at: " =>")
      return (number, left, String(right.dropFirst()))
    }
  }
}
