import Foundation

extension CardReader {
  /// Where the agent's standard error goes.
  public enum ErrorOutput: Sendable {
    /// To this program's.
    case inherit
    /// Nowhere.
    case ignore
    /// To a function, a piece at a time as it comes. It must not wait: the reader waits for it.
    case function(@Sendable (String) -> Void)
  }

  /// How a reader is kept in use.
  public struct Options: Sendable {
    /// The agent's environment; nil: this program's.
    public var env: [String: String]?
    /// The first delay before a new agent. It doubles each time, and is the first again after an
    /// agent that ran for longer than ``restartDelayLimit``.
    public var restartDelay: TimeSpan = 0.5
    /// The longest delay before a new agent.
    public var restartDelayLimit: TimeSpan = 30
    /// The reader has failed after so many agents in a row that ended without ever having answered.
    /// `.max`: never.
    public var giveUpAfter = 5
    /// The timeout of a command that has none of its own; nil: none.
    public var commandTimeout: TimeSpan? = 10
    /// The agent is sent a ping when no command was answered for so long; 0: never.
    public var watchdogInterval: TimeSpan = 5
    /// An agent that has left the oldest command unanswered for so long is killed.
    public var watchdogTimeout: TimeSpan = 15
    /// A card is removed that was not reported for so long, commands under way aside.
    public var cardRemovedAfter: TimeSpan = 0.6
    /// Called on each connection of a reader, before the state is `ready`. If it throws, a log event
    /// says why, and the state stays `searching` up to the next connection. Its task is cancelled
    /// when the reader is disconnected.
    public var onConnect: (@Sendable (CardReader) async throws -> Void)?
    /// An agent that has not ended so long after its input was closed is killed.
    public var closeTimeout: TimeSpan = 2
    /// Where the agent's standard error goes.
    public var stderr = ErrorOutput.inherit
    /// Called with each line, its time, and `>` for a line to the agent or `<` for one from it. It must
    /// not wait: the reader waits for it.
    public var trace: (@Sendable (_ time: Date, _ direction: Character, _ line: String) -> Void)?
    /// Called with each change of the state and each log text, for instance to pass them to a
    /// `Logger`. It must not wait: the reader waits for it.
    public var logger: (@Sendable (_ message: String) -> Void)?

    /// The defaults.
    public init() {}

    func check() throws {
      for (name, time, isZeroAllowed) in [
        ("restartDelay", restartDelay, true), ("restartDelayLimit", restartDelayLimit, true),
        ("watchdogInterval", watchdogInterval, true), ("watchdogTimeout", watchdogTimeout, false),
        ("cardRemovedAfter", cardRemovedAfter, true), ("closeTimeout", closeTimeout, true),
      ] {
        let isInRange = time.seconds > 0 || (isZeroAllowed && time.seconds == 0)
        if !isInRange || time.seconds == .infinity {
          throw invalid(
            name, "a finite number of seconds \(isZeroAllowed ? "from" : "above") 0", time)
        }
      }
      if let time = commandTimeout, !(time.seconds > 0) {
        throw invalid("commandTimeout", "a number of seconds above 0, or nil", time)
      }
      if giveUpAfter < 1 {
        throw CardReaderError.invalidArgument(
          "invalid giveUpAfter: expected a whole number from 1, got \(giveUpAfter)")
      }
      if restartDelayLimit.seconds < restartDelay.seconds {
        throw invalid(
          "restartDelayLimit", "at least restartDelay, \(restartDelay.seconds)", restartDelayLimit)
      }
    }
  }
}

/// Throws for a command's timeout that is none.
func check(_ timeout: TimeSpan?) throws {
  if let timeout, !(timeout.seconds >= 0) {
    throw invalid("timeout", "a number of seconds from 0", timeout)
  }
}

private func invalid(_ name: String, _ expected: String, _ time: TimeSpan) -> CardReaderError {
  .invalidArgument("invalid \(name): expected \(expected), got \(time.seconds)")
}
