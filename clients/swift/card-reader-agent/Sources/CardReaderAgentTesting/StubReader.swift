import CardReaderAgent

/// A stand-in for a reader in unit tests of an application, without any program. The test sends the
/// events and looks at the commands:
///
/// ```swift
/// let stub = StubReader()
/// let door = Task { try await openDoor(stub) }  // takes some CardReaderProtocol
/// await stub.send(.state(.ready, previous: .searching, reason: nil))
/// await stub.send(.card("3AB1234"))
/// ```
public actor StubReader: CardReaderProtocol {
  /// The commands sent so far.
  public private(set) var commands: [ReaderCommand] = []
  private let answer: @Sendable (ReaderCommand) throws -> String
  /// As sent: a name in the state `ready`.
  public private(set) var name: String?
  /// As sent.
  public private(set) var card: String?
  private var streams = EventStreams()

  /// A reader whose commands are all successful, unless the function answers otherwise: with the
  /// text that ``execute(_:timeout:)`` returns, or an error.
  public init(
    answer: @escaping @Sendable (ReaderCommand) throws -> String = { command in
      if case .ping(let text) = command { return text }
      return ""
    }
  ) {
    self.answer = answer
  }

  /// As sent.
  public var state: CardReader.State { streams.state }
  /// As sent.
  public var reason: String? { streams.reason }

  /// The events from now on; the first is the last `state`.
  public func events() -> AsyncThrowingStream<CardReader.Event, any Error> { streams.stream() }
  /// Does nothing.
  public func start() {}
  /// Changes the state to `closed`.
  public func close() { send(.state(.closed, previous: state, reason: nil)) }

  /// Sends an event as a reader does. `failed` ends the streams with the error.
  public func send(
    _ event: CardReader.Event,
    error: CardReaderError = .agentEnded(status: nil, reason: "failed by the test")
  ) {
    switch event {
    case .state(let state, _, let reason):
      name = state == .ready ? "Dev1-STUB" : nil
      streams.change(state, reason, error: state == .failed ? error : nil)
    case .card(let id): card = id
    case .cardRemoved: card = nil
    case .poll, .log: break
    }
    if case .state = event { return }
    streams.send(event)
  }

  /// Notes a command and answers it.
  @discardableResult
  public func execute(_ command: ReaderCommand, timeout: TimeSpan? = nil) throws -> String {
    commands.append(command)
    return try answer(command)
  }
}
