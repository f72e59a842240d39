import Foundation

extension CardReader {
  /// What a reader does when its agent hangs.
  public enum HangPolicy: Sendable {
    /// Ends the agent and starts another.
    case restart
    /// Tells `hang` and goes on.
    case wait
  }

  /// How a reader is kept in use. All times are in seconds.
  public struct Options: Sendable {
    /// The agent's environment; nil: this program's.
    public var env: [String: String]?
    /// The first pause before a new agent. It doubles each time, and is the first again after an
    /// agent that ran for longer than ``restartDelayLimit``.
    public var restartDelay: TimeInterval = 0.5
    /// The longest pause before a new agent.
    public var restartDelayLimit: TimeInterval = 30
    /// The reader has failed after so many agents in a row that ended without ever having answered.
    public var giveUpAfter = 5
    /// The deadline of a command that has none of its own; nil: none.
    public var commandTimeout: TimeInterval? = 10
    /// The agent is sent a ping when no command was answered for so long; 0: never.
    public var watchdogInterval: TimeInterval = 5
    /// The agent hangs when the oldest command under way has waited for so long.
    public var watchdogTimeout: TimeInterval = 15
    /// What is done then.
    public var onHang = HangPolicy.restart
    /// A card is gone that was not reported for so long, commands under way aside.
    public var cardRemovedAfter: TimeInterval = 0.6
    /// Called on each connection of a reader, before the state is `ready`. If it throws, a log event
    /// says why, and the state stays `searching` up to the next connection. Its task is cancelled
    /// when the reader goes.
    public var onConnect: (@Sendable (CardReader) async throws -> Void)?
    /// An agent that has not ended so long after its input was closed is killed.
    public var closeTimeout: TimeInterval = 2
    /// Where the agent's standard error goes.
    public var stderr = CardReaderAgent.ErrorOutput.inherit
    /// Is told each line to and from the agent.
    public var trace: CardReaderAgent.Trace?
    /// Whether a ping with a fresh number follows each command, so that no text of the reader's
    /// library can pass for an answer.
    public var certain = true

    /// The usual ones.
    public init() {}
  }
}
