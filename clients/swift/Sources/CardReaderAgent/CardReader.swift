import Dispatch
import Foundation

/// A card reader that is kept in use for as long as the program runs: the agent is started again
/// when it ends or hangs, commands go to the reader that is attached, and cards come and go as
/// people think of them.
///
/// ```swift
/// let reader = CardReader(path: path)
/// let events = reader.events
/// await reader.start()
/// for await event in events {
///   if case .card(let id) = event {
///     print(id)
///     try? await reader.beep()
///   }
/// }
/// ```
///
/// Every command throws a ``CardReaderError``, or `CancellationError` when its task is cancelled. One
/// that is late or was cancelled may have been sent, and does no harm to the answers of others. A
/// reader that was started lives until ``close()``, also when nobody refers to it any more.
public actor CardReader {
  /// How a reader stands.
  public enum State: String, Sendable {
    /// No agent has answered yet.
    case starting
    /// The agent runs; there is no reader, or the function ``Options/onConnect`` is not done.
    case searching
    /// A reader is there.
    case ready
    /// The agent has ended; a pause.
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
    /// The card was not reported for some time, another one was, or the reader is gone.
    case cardRemoved(String)
    /// A card was reported; four times a second while it is held.
    case poll(String)
    /// A line of diagnostics.
    case log(String)
    /// The agent hangs, and is waited for.
    case hang
  }

  /// The state told last.
  public private(set) var state = State.starting
  /// The reason told with it.
  public private(set) var reason: String?

  /// The ID of the card that is there.
  public private(set) var card: String?

  /// All that happens from when this is read, a stream of its own for each who reads it. Events wait
  /// in memory for whoever iterates, over restarts, and end with the state `closed`.
  public nonisolated var events: AsyncStream<Event> { broadcast.stream() }

  private let path: String
  private let options: Options
  private nonisolated let broadcast = Broadcast<Event>()
  private var supervision: Task<Void, Never>?
  private var isClosing = false
  private var pause: Task<Void, Never>?
  // What ended the last agent, or kept it from starting.
  private var lastEnd = CardReaderError.notRunning
  private var waiters: [Int: CheckedContinuation<Void, any Error>] = [:]
  private var nextWaiter = 0

  // Of the agent that runs:
  private var agent: CardReaderAgent?
  private var hasAnswered = false
  private var hangs = false
  private var reader: ReaderName?
  private var connection = 0
  private var onConnect: Task<Void, Never>?
  private var idleTimes = 0

  // Of the card that is there:
  private var lastReport = DispatchTime.now()
  private var cardWatch: Task<Void, Never>?

  /// A reader that is not started yet. The path is that of `CardReaderAgent.app`, or of the program
  /// in it.
  public init(path: String, options: Options = Options()) {
    self.path = path
    self.options = options
  }

  /// The name of the attached reader.
  public var name: String? { reader?.description }

  /// The agent's process id while it runs.
  public var pid: Int32? { get async { await agent?.pid } }

  /// Begins, and waits for nothing. Only the first call counts.
  public func start() {
    if supervision == nil && !isClosing { supervision = Task { await supervise() } }
  }

  /// Lets the agent answer what was sent, ends it, and kills it after ``Options/closeTimeout``. More
  /// than one may call it.
  public func close() async {
    isClosing = true
    pause?.cancel()
    let closing = agent
    closing?.endInput()
    let limit = Task { [options] in
      if await sleeps(options.closeTimeout) { closing?.kill() }
    }
    await supervision?.value
    limit.cancel()
    change(.closed)
  }

  /// Waits for the state `ready`. Throws `deadline` after so many seconds; when the state is
  /// `failed`, what led there; when it is `closed`, `agentEnded`.
  public func waitForReader(timeout: TimeInterval? = nil) async throws {
    if let result = waitResult { return try result.get() }
    let waiter = nextWaiter
    nextWaiter += 1
    let deadline = timeout.map { timeout in
      Task { if await sleeps(timeout) { endWait(waiter, .failure(CardReaderError.deadline)) } }
    }
    defer { deadline?.cancel() }
    try await withTaskCancellationHandler {
      try await withCheckedThrowingContinuation { waiters[waiter] = $0 }
    } onCancel: {
      Task { await self.endWait(waiter, .failure(CancellationError())) }
    }
  }

  /// Returns the text, less white space at its end. Needs no reader.
  @discardableResult
  public func ping(_ text: String = "", timeout: TimeInterval? = nil) async throws -> String {
    let answer = try await run(try .ping(text), timeout)
    return String(answer.dropFirst())  // the blank before the text comes back too
  }

  /// Sounds the beeper: 1 to 5 short beeps, or 1 to 2 long ones.
  public func beep(
    _ count: Int = 1, _ length: BeepLength = .short, timeout: TimeInterval? = nil
  ) async throws {
    try await run(.beep(attached(), count, length), timeout)
  }

  /// Takes the LED under the agent's control and sets its color.
  public func setLed(_ color: LedColor, timeout: TimeInterval? = nil) async throws {
    try await run(.setLed(attached(), color), timeout)
  }

  /// Gives control of the LED back to the reader.
  public func clearLed(timeout: TimeInterval? = nil) async throws {
    try await run(.clearLed(attached()), timeout)
  }

  /// Changes the reader's configuration. Throws `unknownSettings` for those that the agent does not
  /// know, once it has applied the others.
  public func configure(_ settings: ReaderSettings, timeout: TimeInterval? = nil) async throws {
    try await run(.readerConfig(attached(), settings), timeout)
  }

  /// Resets the reader to its factory settings.
  public func resetConfig(timeout: TimeInterval? = nil) async throws {
    try await run(.resetConfig(attached()), timeout)
  }

  private func attached() throws -> ReaderName {
    guard let reader else { throw CardReaderError.noReader }
    return reader
  }

  @discardableResult
  private func run(_ line: AgentCommand, _ timeout: TimeInterval?) async throws -> String {
    guard let agent else { throw CardReaderError.notRunning }
    try Task.checkCancellation()
    return try await agent.send(line, timeout: timeout ?? options.commandTimeout).outcome()
  }

  // One agent after the other, until this is closed or there is no hope.
  private func supervise() async {
    var delay = options.restartDelay
    var unanswered = 0
    while !isClosing {
      let started = DispatchTime.now()
      lastEnd = await runAgent()
      if isClosing { return }
      unanswered = hasAnswered ? 0 : unanswered + 1
      if !lastEnd.mayPass || unanswered >= options.giveUpAfter {
        return change(.failed, lastEnd.description)
      }
      if secondsSince(started) > options.restartDelayLimit { delay = options.restartDelay }
      change(.restarting, lastEnd.description)
      pause = Task { [delay] in _ = await sleeps(delay) }
      await pause?.value
      delay = min(delay * 2, options.restartDelayLimit)
      if !isClosing { change(.starting) }
    }
  }

  // One agent from its start to its end; returns what ended it.
  private func runAgent() async -> CardReaderError {
    let (notices, told) = AsyncStream.makeStream(of: CardReaderAgent.Notice.self)
    let agent = CardReaderAgent(
      path: path, env: options.env, certain: options.certain, stderr: options.stderr,
      trace: options.trace
    ) { notice in
      told.yield(notice)
      if case .event(.ended) = notice { told.finish() }
    }
    hasAnswered = false
    hangs = false
    do {
      try agent.start()
    } catch {
      return error as? CardReaderError ?? .notRunning
    }
    self.agent = agent
    if let ping = try? AgentCommand.ping("") { _ = agent.send(ping) }
    let watchdog = Task { await watch(agent) }
    defer { watchdog.cancel() }
    var end = CardReaderError.notRunning
    for await notice in notices {
      switch notice {
      case .idle: becameIdle()
      case .event(.attached(let name)): connect(name)
      case .event(.replaced(let name, _)):
        disconnect("the reader was connected anew")
        connect(name)
      case .event(.gone): disconnect("the reader has gone")
      case .event(.card(let id, _)): take(id)
      case .event(.log(let text)): broadcast.tell(.log(text))
      case .event(.ended(let status, let reason)):
        end = .agentEnded(status: status, reason: hangs ? "the agent hangs" : reason)
      }
    }
    self.agent = nil
    disconnect(nil)
    return end
  }

  private func answered() {
    hasAnswered = true
    if state == .starting { change(.searching) }
  }

  private func becameIdle() {
    answered()
    idleTimes += 1
    if card != nil && cardWatch == nil { watchCard() }
  }

  private func connect(_ name: ReaderName) {
    answered()
    reader = name
    connection += 1
    guard let function = options.onConnect else { return change(.ready) }
    let number = connection
    onConnect = Task {
      do {
        try await function(self)
        if isAttached(number) { change(.ready) }
      } catch {
        if isAttached(number) {
          broadcast.tell(.log("the on-connect function failed: \(error)"))
        }
      }
    }
  }

  private func isAttached(_ number: Int) -> Bool {
    number == connection && reader != nil && !isClosing
  }

  // Without a reason, the agent has ended, and the next state is to be told by whoever knows why.
  private func disconnect(_ reason: String?) {
    reader = nil
    onConnect?.cancel()
    onConnect = nil
    cardLeaves()
    if let reason, state == .ready { change(.searching, reason) }
  }

  // The ping that was sent at the start counts as a command under way, so this sees every agent that
  // hangs from the start.
  private func watch(_ agent: CardReaderAgent) async {
    let timeout = options.watchdogTimeout
    let interval = options.watchdogInterval > 0 ? options.watchdogInterval : .infinity
    var suspected: DispatchTime?
    var told: DispatchTime?
    while !Task.isCancelled {
      let activity = await agent.activityNow()
      let limit = activity.waitsSince == nil ? interval : timeout
      let left = limit - secondsSince(activity.waitsSince ?? activity.lastAnswered)
      if left > 0 {
        _ = await sleeps(min(left, interval, timeout))
      } else if activity.waitsSince == nil {
        if let ping = try? AgentCommand.ping("") { _ = agent.send(ping) }
      } else if suspected != activity.waitsSince {
        // This program may have stood still itself, and not have read what came meanwhile.
        suspected = activity.waitsSince
        _ = await sleeps(min(timeout / 10, 1))
      } else if options.onHang == .restart {
        hangs = true
        return agent.kill()
      } else {
        if told != suspected { broadcast.tell(.hang) }
        told = suspected
        _ = await sleeps(min(timeout, interval))
      }
    }
  }

  private func take(_ id: String) {
    lastReport = .now()
    if card != id {
      cardLeaves()
      card = id
      broadcast.tell(.card(id))
    }
    broadcast.tell(.poll(id))
    if cardWatch == nil { watchCard() }
  }

  private func cardLeaves() {
    cardWatch?.cancel()
    cardWatch = nil
    guard let card else { return }
    self.card = nil
    broadcast.tell(.cardRemoved(card))
  }

  // The agent looks for cards only between commands: time with commands under way does not count.
  private func watchCard() {
    cardWatch = Task {
      var since = lastReport
      while true {
        let left = options.cardRemovedAfter - secondsSince(since)
        if left > 0 {
          guard await sleeps(left) else { return }
          since = max(since, lastReport)
          continue
        }
        let idleBefore = idleTimes
        guard let activity = await agent?.activityNow(), !Task.isCancelled else { return }
        since = max(lastReport, activity.lastAnswered)
        if activity.waitsSince != nil && idleTimes == idleBefore {
          cardWatch = nil  // the next time that no command is under way begins it anew
          return
        }
        if activity.waitsSince == nil && secondsSince(since) >= options.cardRemovedAfter {
          return cardLeaves()
        }
      }
    }
  }

  private func change(_ new: State, _ reason: String? = nil) {
    if new == state { return }
    let previous = state
    state = new
    self.reason = reason
    broadcast.tell(.state(new, previous: previous, reason: reason))
    if new == .closed { broadcast.finish() }
    if let result = waitResult { for waiter in waiters.keys { endWait(waiter, result) } }
  }

  // What a wait for the reader comes to in this state; nil: it goes on.
  private var waitResult: Result<Void, any Error>? {
    switch state {
    case .ready: return .success(())
    case .failed: return .failure(lastEnd)
    case .closed: return .failure(CardReaderError.notRunning)
    default: return nil
    }
  }

  private func endWait(_ waiter: Int, _ result: Result<Void, any Error>) {
    waiters.removeValue(forKey: waiter)?.resume(with: result)
  }
}

private func secondsSince(_ time: DispatchTime) -> TimeInterval {
  (TimeInterval(DispatchTime.now().uptimeNanoseconds) - TimeInterval(time.uptimeNanoseconds)) / 1e9
}

/// Returns false when the task was cancelled before. A time that is too long to be told is a year.
private func sleeps(_ seconds: TimeInterval) async -> Bool {
  let nanoseconds = seconds > 0 ? UInt64(min(seconds, 366 * 86_400) * 1e9) : 0
  return (try? await Task.sleep(nanoseconds: nanoseconds)) != nil
}
