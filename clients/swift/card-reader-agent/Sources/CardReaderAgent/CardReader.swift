import Dispatch
import Foundation

/// A card reader that is kept in use for as long as the program runs: the agent is started again
/// when it ends or hangs, commands go to the reader that is attached, and cards are told when they
/// appear and when they are removed.
///
/// ```swift
/// try await withCardReader(path: path) { reader in
///   for try await event in await reader.events() {
///     if case .card(let id) = event {
///       print(id)
///       try? await reader.beep()
///     }
///   }
/// }
/// ```
///
/// A reader that was started lives until ``close()``, also when nobody refers to it any more.
public actor CardReader: CardReaderProtocol {
  /// The state of a reader.
  public enum State: String, Sendable {
    /// No agent has answered yet.
    case starting
    /// The agent runs; no reader is attached, or the function ``Options/onConnect`` is running.
    case searching
    /// A reader is attached.
    case ready
    /// The agent has ended, and the next one is not started yet.
    case restarting
    /// Given up, for good: the agent can't be run, or ends again and again.
    case failed
    /// Closed, for good.
    case closed
  }

  /// What happens to a reader.
  public enum Event: Equatable, Sendable {
    /// The state has changed; the reason is a sentence for people.
    case state(State, previous: State, reason: String?)
    /// A card has appeared.
    case card(String)
    /// The card was not reported for some time, another one was, or the reader was disconnected.
    case cardRemoved(String)
    /// A card was reported; four times a second while it is held.
    case poll(String)
    /// A line of diagnostics.
    case log(String)
  }

  /// The ID of the card that is held up.
  public private(set) var card: String?

  private let program: String
  private let env: [String: String]
  private let options: Options
  private var streams = EventStreams()
  private var supervision: Task<Void, Never>?
  private var isClosing = false
  private var pause: Task<Void, any Error>?

  // Of the agent that runs:
  private var process: AgentProcess?
  private var hasAnswered = false
  private var endReason: String?  // why this program ends it
  private var closeLimit: Double?  // when it is killed
  private var killLimit: Double?  // when its end is not waited for any longer
  private var lastErrorOutput: [UInt8] = []
  private var reader: [UInt8]?
  private var lastConnection: UInt64?  // the number in the name of the last reader
  private var onConnect: Task<Void, Never>?
  private var pending = PendingCommands()

  // The times below and the limits above are those of `clock`.
  private var clock = Clock()
  private var oldestSince = 0.0  // since when the oldest command under way is the oldest
  private var idleSince = 0.0  // since when no command is under way; else without a meaning
  private var idleBefore = 0.0  // the idle time before
  private var idleAtReport = 0.0  // the idle time at the last report of the card

  /// A reader that is not started yet. The path is that of `CardReaderAgent.app`, or of the program
  /// in it. Throws `invalidArgument` for an option that is out of its range.
  public init(path: String, options: Options = Options()) throws {
    try options.check()
    let bundle = path.hasSuffix("/") ? String(path.dropLast()) : path
    program = bundle.hasSuffix(".app") ? "\(bundle)/Contents/MacOS/card-reader-agent" : path
    env = options.env ?? ProcessInfo.processInfo.environment
    self.options = options
  }

  /// The state told last.
  public var state: State { streams.state }
  /// The reason told with it.
  public var reason: String? { streams.reason }
  /// The name of the attached reader.
  public var name: String? { reader.map { String(decoding: $0, as: UTF8.self) } }
  /// The agent's process id while it runs.
  public var pid: Int32? { process?.id }

  /// The events from now on, a stream for each caller. It begins with the last `state` event, if
  /// there was one. Events wait in memory until they are read. The stream ends with the state
  /// `closed`; with `failed`, it throws what led there.
  public func events() -> AsyncThrowingStream<Event, any Error> { streams.stream() }

  /// Starts the agent in the background. Only the first call counts.
  public func start() {
    if supervision == nil && !isClosing { supervision = Task { await supervise() } }
  }

  /// Lets the agent answer what was sent, ends it, and kills it after ``Options/closeTimeout``. Any
  /// number of tasks may call it.
  public func close() async {
    isClosing = true
    pause?.cancel()
    process?.closeInput()
    if closeLimit == nil { closeLimit = clock.now + options.closeTimeout.seconds }
    schedule()
    await supervision?.value
    change(.closed)
  }

  /// Sends a command. Returns the text of a ping, and nothing for others.
  @discardableResult
  public func execute(
    _ command: ReaderCommand, timeout: TimeSpan? = nil
  ) async throws -> String {
    try check(timeout)
    let line = try command.line(for: reader)
    guard let process, !isClosing else { throw CardReaderError.notRunning }
    try Task.checkCancellation()
    let number = pending.nextNumber
    return try await withTaskCancellationHandler {
      try await withCheckedThrowingContinuation { continuation in
        let timeout = timeout ?? options.commandTimeout ?? .never
        send(process, command, line, limit: clock.now + timeout.seconds, continuation)
      }
    } onCancel: {
      Task { await self.cancel(number) }
    }
  }

  private func cancel(_ number: Int) { pending.settle(number, .failure(CancellationError())) }

  private func send(
    _ process: AgentProcess, _ command: ReaderCommand, _ line: [UInt8]? = nil,
    limit: Double = .infinity, _ continuation: CheckedContinuation<String, any Error>? = nil
  ) {
    let now = clock.now
    if pending.isEmpty {
      idleBefore += now - idleSince
      oldestSince = now
    }
    let lines = pending.append(command, line, limit: limit, continuation)
    for line in lines { trace(">", line[...]) }
    process.write(Array(lines.map { $0 + [UInt8(ascii: "\n")] }.joined()))
    if min(limit, now + slice) < clock.wakesAt { schedule() }
  }

  // One agent after the other, until this is closed or there is no hope.
  private func supervise() async {
    var delay = options.restartDelay.seconds
    var unanswered = 0
    while !isClosing {
      let start = clock.now
      let end = await runAgent()
      if isClosing { return }
      unanswered = hasAnswered ? 0 : unanswered + 1
      if !end.isRetryable || unanswered >= options.giveUpAfter {
        return change(.failed, end.description, error: end)
      }
      if clock.now - start > options.restartDelayLimit.seconds {
        delay = options.restartDelay.seconds
      }
      change(.restarting, end.description)
      pause = Task { [delay] in try await sleep(.seconds(delay)) }
      _ = await pause?.result
      delay = min(delay * 2, options.restartDelayLimit.seconds)
      if !isClosing { change(.starting) }
    }
  }

  // One agent from its start to its end, which it returns. All that happens to the agent arrives
  // here, in its order: what it writes, its end, and the times at which something is due.
  private func runAgent() async -> CardReaderError {
    (hasAnswered, endReason, killLimit, lastConnection) = (false, nil, nil, nil)
    lastErrorOutput = []
    let process: AgentProcess
    do {
      process = try AgentProcess(path: program, environment: env)
    } catch {
      return error as? CardReaderError ?? .notRunning
    }
    self.process = process
    (idleSince, idleBefore) = (clock.now, 0)
    send(process, .ping(""))
    var status: AgentStatus?
    for await event in process.events {
      switch event {
      case .line(let line): take(line)
      case .errorOutput(let bytes): takeErrorOutput(bytes)
      case .woken(let uptime): wake(process, clock.time(at: uptime))
      case .ended(let ended): status = ended
      }
    }
    let end =
      endReason.map { .agentEnded(status: status, reason: $0) }
      ?? CardReaderError.ended(status, errorOutput: lastErrorOutput)
    self.process = nil
    _ = clock.schedule(.infinity)
    pending.failAll(end)
    disconnect(nil)
    return end
  }

  // Ends the agent: by the event `ended`, or two seconds later without it.
  private func end(_ process: AgentProcess, _ reason: String?) {
    endReason = reason
    closeLimit = nil
    killLimit = clock.now + 2
    process.signal(SIGKILL)
  }

  // Does what is due by then. What the agent had answered by then was taken before; a later answer
  // may be in time although it has not arrived here.
  private func wake(_ process: AgentProcess, _ now: Double) {
    pending.settleLate(now)
    if let killLimit {
      if now >= killLimit { process.abandon() }
    } else if let closeLimit, now >= closeLimit {
      end(process, nil)
    } else if !pending.isEmpty && now >= oldestSince + options.watchdogTimeout.seconds {
      end(process, "the agent is not responding")
    } else if pending.isEmpty && now >= pingDue {
      send(process, .ping(""))
    }
    if now >= cardLimit { removeCard() }
    schedule()
  }

  // Sets the time at which something is due next.
  private func schedule() {
    guard let process else { return }
    let now = clock.now
    let due = [
      pending.nextLimit, killLimit ?? closeLimit ?? .infinity, cardLimit,
      pending.isEmpty ? pingDue : now + slice,
    ]
    process.wake(after: clock.schedule(due.min() ?? .infinity))
  }

  // While a command is under way, time is taken in slices, for the clock to see when this program
  // stands still.
  private var slice: Double { min(1, options.watchdogTimeout.seconds / 4) }

  private var pingDue: Double {
    options.watchdogInterval.seconds > 0 && !isClosing
      ? idleSince + options.watchdogInterval.seconds : .infinity
  }

  // When the card is removed if it is not reported until then. The agent polls for cards only while
  // no command is under way, so only idle time counts.
  private var cardLimit: Double {
    guard card != nil && pending.isEmpty else { return .infinity }
    return idleSince + idleAtReport - idleBefore + options.cardRemovedAfter.seconds
  }

  private func take(_ bytes: ArraySlice<UInt8>) {
    trace("<", bytes)
    let line = AgentLine(bytes)
    switch line {
    case .ok, .error: takeAnswer(line, bytes)
    case .reader(let name, let number) where lastConnection.map { $0 + 1 == number } ?? true:
      connect(name, number)
    case .noReader where reader != nil: disconnect("the reader was disconnected")
    case .card(let id) where reader != nil && !pending.isExecuting: takeCard(id)
    case .log(let text):
      pending.take(logText: text)
      log(text)
    // Text of the reader's library that looks like a line of the agent's.
    case .reader, .noReader, .card: log(String(decoding: bytes, as: UTF8.self))
    }
  }

  private func takeAnswer(_ answer: AgentLine, _ bytes: ArraySlice<UInt8>) {
    let text = String(decoding: bytes, as: UTF8.self)
    switch pending.take(answer: answer, text, attached: reader) {
    case .pending(let text): text.map(log)
    case .settled(let correction):
      oldestSince = clock.now
      if pending.isEmpty {
        idleSince = oldestSince
        schedule()
      }
      setAnswered()
      // A forged line has named another reader than the one that is attached.
      if let name = correction, let number = connectionNumber(name[...]) {
        connect(name, number)
      } else if correction != nil {
        disconnect("the reader was disconnected")
      }
    }
  }

  private func setAnswered() {
    hasAnswered = true
    if state == .starting { change(.searching) }
  }

  private func connect(_ name: [UInt8], _ number: UInt64) {
    setAnswered()
    if reader != nil { disconnect("the reader was reconnected") }
    reader = name
    lastConnection = number
    guard let function = options.onConnect else { return change(.ready) }
    onConnect = Task {
      do {
        try await function(self)
        if !Task.isCancelled && !isClosing { change(.ready) }
      } catch {
        if !Task.isCancelled && !isClosing { log("the on-connect function failed: \(error)") }
      }
    }
  }

  // Without a reason, the agent has ended, and the caller changes the state.
  private func disconnect(_ reason: String?) {
    reader = nil
    onConnect?.cancel()
    onConnect = nil
    removeCard()
    if let reason, state == .ready { change(.searching, reason) }
  }

  private func takeCard(_ id: String) {
    if card != id {
      removeCard()
      card = id
      streams.send(.card(id))
    }
    idleAtReport = idleBefore + (pending.isEmpty ? clock.now - idleSince : 0)
    streams.send(.poll(id))
    if cardLimit < clock.wakesAt { schedule() }
  }

  private func removeCard() {
    guard let card else { return }
    self.card = nil
    streams.send(.cardRemoved(card))
  }

  private func takeErrorOutput(_ bytes: [UInt8]) {
    lastErrorOutput = (lastErrorOutput + bytes).suffix(4096)
    switch options.stderr {
    case .ignore: break
    case .function(let take): take(String(decoding: bytes, as: UTF8.self))
    case .inherit: standardError.async { writeToStandardError(bytes) }
    }
  }

  private func change(_ new: State, _ reason: String? = nil, error: CardReaderError? = nil) {
    guard streams.change(new, reason, error: error), let logger = options.logger else { return }
    logger("\(new)\(reason.map { ": \($0)" } ?? "")")
  }

  private func log(_ text: String) {
    streams.send(.log(text))
    options.logger?(text)
  }

  private func trace(_ direction: Character, _ line: ArraySlice<UInt8>) {
    options.trace?(Date(), direction, String(decoding: line, as: UTF8.self))
  }
}

/// Starts a reader, calls the function with it, closes the reader and returns what the function
/// returned or threw.
public func withCardReader<Result>(
  path: String, options: CardReader.Options = CardReader.Options(),
  _ function: (CardReader) async throws -> Result
) async throws -> Result {
  let reader = try CardReader(path: path, options: options)
  await reader.start()
  do {
    let result = try await function(reader)
    await reader.close()
    return result
  } catch {
    await reader.close()
    throw error
  }
}

// The reader of this program's standard error may stop, and must not stop the agent.
private let standardError = DispatchQueue(label: "card reader agent's standard error")
