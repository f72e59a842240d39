/// What an application uses of a reader: a ``CardReader``, or in its unit tests the stub reader of
/// the testing library.
///
/// Every command throws a ``CardReaderError``, or `CancellationError` when its task is cancelled. One
/// that timed out or was cancelled may have been sent; the answers of others stay right.
public protocol CardReaderProtocol: Actor {
  /// The state told last.
  var state: CardReader.State { get }
  /// The reason told with it.
  var reason: String? { get }
  /// The name of the attached reader.
  var name: String? { get }
  /// The ID of the card that is held up.
  var card: String? { get }

  /// The events from now on, a stream for each caller. It begins with the last `state` event, if
  /// there was one. It ends with the state `closed`; with `failed`, it throws what led there.
  func events() -> AsyncThrowingStream<CardReader.Event, any Error>
  /// Starts the agent in the background. Only the first call counts.
  func start()
  /// Lets the agent answer what was sent, and ends it.
  func close() async
  /// Sends a command. Returns the text of a ping, and nothing for others.
  @discardableResult
  func execute(_ command: ReaderCommand, timeout: TimeSpan?) async throws -> String
}

extension CardReaderProtocol {
  /// Returns the text, less white space at its end. Needs no reader.
  @discardableResult
  public func ping(_ text: String = "", timeout: TimeSpan? = nil) async throws -> String {
    try await execute(.ping(text), timeout: timeout)
  }

  /// Sounds the beeper: 1 to 5 short beeps, or 1 to 2 long ones.
  public func beep(
    _ count: Int = 1, _ length: BeepLength = .short, timeout: TimeSpan? = nil
  ) async throws {
    try await execute(.beep(count, length), timeout: timeout)
  }

  /// Takes the LED under the agent's control and sets its color.
  public func setLed(_ color: LedColor, timeout: TimeSpan? = nil) async throws {
    try await execute(.setLed(color), timeout: timeout)
  }

  /// Gives control of the LED back to the reader.
  public func clearLed(timeout: TimeSpan? = nil) async throws {
    try await execute(.clearLed, timeout: timeout)
  }

  /// Changes the reader's configuration. Throws `unknownSettings` for those that the agent does not
  /// know, once it has applied the others.
  public func configure(_ settings: ReaderSettings, timeout: TimeSpan? = nil) async throws {
    try await execute(.configure(settings), timeout: timeout)
  }

  /// Resets the reader to its factory settings.
  public func resetConfig(timeout: TimeSpan? = nil) async throws {
    try await execute(.resetConfig, timeout: timeout)
  }

  /// Returns when the state is this one. Throws `commandTimeout`; what led to the state `failed`;
  /// `agentEnded` when the state is `closed`.
  public func waitFor(_ state: CardReader.State, timeout: TimeSpan? = nil) async throws {
    if self.state != state { _ = try await next(state, timeout, passesOver: false) }
  }

  /// Returns the reader's name the next time that the state becomes `ready`, whatever it is now.
  /// Throws what ``waitFor(_:timeout:)`` throws.
  @discardableResult
  public func waitForConnection(timeout: TimeSpan? = nil) async throws -> String {
    try await next(.ready, timeout, passesOver: state == .ready)
  }

  // The name of the reader at the next event of the state; the first event may tell the current one.
  private func next(
    _ state: CardReader.State, _ timeout: TimeSpan?, passesOver: Bool
  ) async throws -> String {
    try check(timeout)
    let events = events()
    return try await within(timeout) {
      var passesOver = passesOver
      for try await case .state(state, _, _) in events {
        let name = await self.name
        if !passesOver && (name != nil || state != .ready) { return name ?? "" }
        passesOver = false
      }
      try Task.checkCancellation()
      throw CardReaderError.notRunning
    }
  }
}
