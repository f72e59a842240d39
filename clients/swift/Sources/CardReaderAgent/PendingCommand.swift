import Dispatch
import Foundation

/// A command that was sent, for whoever waits for its answer: at most one. What is told of it once
/// stays so; an answer that comes after the deadline or the cancellation is lost.
final class PendingCommand: @unchecked Sendable {
  let line: AgentCommand
  /// The text of the ping behind the command, whose answer ends the wait for the command's.
  let seal: String?
  private let queue: DispatchQueue
  // The rest belongs to the queue.
  private var answer: AgentLine?
  private var unknownSettings: Set<String> = []
  private var result: Result<String, any Error>?
  private var waiting: CheckedContinuation<String, any Error>?
  private var deadline: (any DispatchSourceTimer)?

  init(_ line: AgentCommand, seal: String?, queue: DispatchQueue) {
    self.line = line
    self.seal = seal
    self.queue = queue
  }

  /// Whether nobody needs its answer any more.
  var isSettled: Bool { result != nil }

  /// Lets the command fail after so many seconds.
  func setDeadline(_ seconds: TimeInterval) {
    let timer = DispatchSource.makeTimerSource(queue: queue)
    timer.schedule(deadline: .now() + seconds)
    timer.setEventHandler { [unowned self] in settle(.failure(CardReaderError.deadline)) }
    timer.resume()
    deadline = timer
  }

  /// Takes the line for the command's answer, up to now, and gives back the one that it replaces.
  func take(_ line: AgentLine) -> AgentLine? {
    defer { answer = line }
    return answer
  }

  /// Looks whether a log text that came before the answer names a setting of the command's.
  func take(logText text: String) {
    let prefix = "Ignoring unexpected setting "
    guard !line.settings.isEmpty, text.hasPrefix(prefix) else { return }
    let named = text.dropFirst(prefix.count)
    for setting in line.settings {
      let type = setting.prefix { $0 != "." }
      if named == "type \(type)" || named.hasPrefix("\(setting)=") {
        unknownSettings.insert(setting)
      }
    }
  }

  /// Tells the answer taken last.
  func settleByAnswer() {
    switch answer {
    case .ok where !unknownSettings.isEmpty:
      settle(.failure(CardReaderError.unknownSettings(unknownSettings.sorted())))
    case .ok(let text): settle(.success(text))
    case .error(let message): settle(.failure(failure(message)))
    default: settle(.failure(CardReaderError.rejected("the agent did not answer the command")))
    }
  }

  /// Tells whoever waits, unless something else was told before.
  func settle(_ result: Result<String, any Error>) {
    if self.result != nil { return }
    self.result = result
    deadline?.cancel()
    deadline = nil
    waiting?.resume(with: result)
    waiting = nil
  }

  /// Waits for the answer's text; from any task. Its cancellation ends the wait.
  func outcome() async throws -> String {
    try await withTaskCancellationHandler {
      try await withCheckedThrowingContinuation { continuation in
        queue.async { [self] in
          if let result { continuation.resume(with: result) } else { waiting = continuation }
        }
      }
    } onCancel: {
      queue.async { self.settle(.failure(CancellationError())) }
    }
  }
}
