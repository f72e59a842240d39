import Dispatch
import Foundation

/// One agent process: starts it, sends it commands and reports what it tells. An application uses
/// ``CardReader`` instead, which keeps one running.
///
/// ```swift
/// let agent = CardReaderAgent(path: path)
/// try agent.start()
/// for await event in agent.events {
///   if case .card(let id, let reader?) = event { try await agent.beep(reader) }
/// }
/// ```
///
/// Every command throws a ``CardReaderError``, or `CancellationError` when its task is cancelled;
/// what was sent by then is carried out all the same. Commands may be sent without waiting for the
/// answers before. An agent that was started lives until it ends or is closed, also when nobody
/// refers to this object any more.
public final class CardReaderAgent: @unchecked Sendable {
  /// What the agent tells of its own accord, in its order.
  public enum Event: Equatable, Sendable {
    /// A reader was found while there was none.
    case attached(ReaderName)
    /// The reader was lost and found again at once; commands need its new name.
    case replaced(ReaderName, previous: ReaderName)
    /// The reader was lost. The agent looks for one every 10 seconds.
    case gone(previous: ReaderName?)
    /// A card was read: its ID in upper-case hexadecimal digits, and the reader it came from.
    case card(id: String, reader: ReaderName?)
    /// A line of diagnostics; a text of several lines comes as several events.
    case log(String)
    /// The agent has ended, and all its commands are settled: nil when its status was taken by
    /// another part of this program. The last event.
    case ended(AgentStatus?, reason: String)
  }

  /// Where what the agent writes on standard error goes.
  public enum ErrorOutput: Sendable {
    /// To this program's.
    case inherit
    /// Nowhere.
    case ignore
    /// To a function, a piece at a time as it comes. It must not wait: the agent waits for it.
    case function(@Sendable (String) -> Void)
  }

  /// Which way a line goes.
  public enum Direction: Character, Sendable {
    /// To the agent.
    case toAgent = ">"
    /// From the agent.
    case fromAgent = "<"
  }

  /// Is told each line, with the time. It must not wait: the agent waits for it.
  public typealias Trace = @Sendable (_ time: Date, Direction, _ line: String) -> Void

  /// What the upper layer is told besides.
  enum Notice: Sendable {
    case event(Event)
    /// No command is under way any more.
    case idle
  }

  /// How things stand, in times of the system's uptime.
  struct Activity: Sendable {
    /// Since when the oldest command under way waits for the agent; nil: none is.
    var waitsSince: DispatchTime?
    /// When the last command was answered, or the agent was started.
    var lastAnswered: DispatchTime
  }

  /// The events from the start on, which wait in memory for whoever iterates over them. For one
  /// iteration.
  public let events: AsyncStream<Event>

  private let program: String
  private let env: [String: String]
  private let certain: Bool
  private let stderr: ErrorOutput
  private let trace: Trace?
  private let tell: @Sendable (Notice) -> Void
  private let queue = DispatchQueue(label: "card reader agent")
  // The rest belongs to the queue.
  private var process: AgentProcess?
  private var wasStarted = false
  private var end: CardReaderError?
  private var status: AgentStatus?
  private var awaitsEnd: [CheckedContinuation<AgentStatus?, Never>] = []
  private var attached: ReaderName?
  private var pending = Queue<PendingCommand>()
  private var lastErrorOutput: [UInt8] = []
  private var activity = Activity(lastAnswered: .now())
  private var isClosing = false

  /// An agent that is not started yet.
  ///
  /// - Parameters:
  ///   - path: `CardReaderAgent.app`, or the program in it.
  ///   - env: the agent's, by default this program's.
  ///   - certain: whether a ping follows each command, so that no text of the reader's library can
  ///     pass for an answer. It costs a flood of commands a third of its speed.
  ///   - stderr: where the agent's standard error goes.
  ///   - trace: is told each line.
  public convenience init(
    path: String, env: [String: String]? = nil, certain: Bool = false,
    stderr: ErrorOutput = .inherit, trace: Trace? = nil
  ) {
    let (events, told) = AsyncStream.makeStream(of: Event.self)
    self.init(
      path: path, env: env, certain: certain, stderr: stderr, trace: trace, events: events
    ) { notice in
      guard case .event(let event) = notice else { return }
      told.yield(event)
      if case .ended = event { told.finish() }
    }
  }

  /// One that tells its events with all else there is to `tell`, on a thread of its own.
  init(
    path: String, env: [String: String]?, certain: Bool, stderr: ErrorOutput, trace: Trace?,
    events: AsyncStream<Event> = AsyncStream { $0.finish() },
    tell: @escaping @Sendable (Notice) -> Void
  ) {
    let bundle = path.hasSuffix("/") ? String(path.dropLast()) : path
    program = bundle.hasSuffix(".app") ? "\(bundle)/Contents/MacOS/card-reader-agent" : path
    self.env = env ?? ProcessInfo.processInfo.environment
    self.certain = certain
    self.stderr = stderr
    self.trace = trace
    self.events = events
    self.tell = tell
  }

  /// The agent's process id while it runs.
  public var pid: Int32? {
    get async { await onQueue { $0.process?.id } }
  }

  /// The name of the attached reader.
  public var reader: ReaderName? {
    get async { await onQueue { $0.attached } }
  }

  /// Starts the agent, once. Throws `agentStart` when it can't be run. A program that runs but fails
  /// at once, for want of its library perhaps, gives the event `ended`.
  public func start() throws {
    try queue.sync {
      precondition(!wasStarted, "The agent was started before")
      let listener = AgentProcess.Listener(
        line: { [self] in take($0) }, errorOutput: { [self] in takeErrorOutput($0) },
        end: { [self] in finish($0) })
      do {
        process = try AgentProcess(
          path: program, environment: env, queue: queue, listener: listener)
        wasStarted = true
        activity = Activity(lastAnswered: .now())
      } catch let error as SystemError {
        throw CardReaderError.cannotStart(program, error)
      }
    }
  }

  /// Closes the agent's standard input, waits for its end and returns its status. All commands sent
  /// before are answered by then. It has no limit in time: an agent that waits for its reader ends
  /// when the reader answers, or with ``kill()``.
  @discardableResult
  public func close() async -> AgentStatus? {
    endInput()
    return await withCheckedContinuation { continuation in
      queue.async { [self] in
        if process == nil {
          continuation.resume(returning: status)
        } else {
          awaitsEnd.append(continuation)
        }
      }
    }
  }

  /// Closes the agent's standard input and waits for nothing.
  func endInput() {
    queue.async { [self] in
      isClosing = true
      process?.closeInput()
    }
  }

  /// Ends the agent at once; whatever was not answered fails.
  public func kill() { queue.async { [self] in process?.signal(SIGKILL) } }

  /// Returns the text, less white space at its end.
  @discardableResult
  public func ping(_ text: String = "") async throws -> String {
    String(try await run(.ping(text)).dropFirst())  // the blank before comes back too
  }

  /// Sounds the beeper: 1 to 5 short beeps, or 1 to 2 long ones.
  public func beep(_ reader: ReaderName, _ count: Int = 1, _ length: BeepLength = .short)
    async throws
  {
    _ = try await run(.beep(reader, count, length))
  }

  /// Takes the LED under the agent's control and sets its color.
  public func setLed(_ reader: ReaderName, _ color: LedColor) async throws {
    _ = try await run(.setLed(reader, color))
  }

  /// Gives control of the LED back to the reader.
  public func clearLed(_ reader: ReaderName) async throws {
    _ = try await run(.clearLed(reader))
  }

  /// Changes the reader's configuration.
  public func configure(_ reader: ReaderName, _ settings: ReaderSettings) async throws {
    _ = try await run(.readerConfig(reader, settings))
  }

  /// Resets the reader to its factory settings.
  public func resetConfig(_ reader: ReaderName) async throws {
    _ = try await run(.resetConfig(reader))
  }

  private func run(_ command: AgentCommand) async throws -> String {
    try Task.checkCancellation()
    return try await send(command).outcome()
  }

  /// Sends a command, behind all that were sent before; from any thread. Its answer is late after so
  /// many seconds.
  func send(_ line: AgentCommand, timeout: TimeInterval? = nil) -> PendingCommand {
    let seal = certain ? String(UInt64.random(in: 0 ... .max), radix: 36) : nil
    let command = PendingCommand(line, seal: seal, queue: queue)
    queue.async { [self] in
      if command.isSettled { return }
      guard let process, !isClosing else {
        return command.settle(.failure(end ?? CardReaderError.notRunning))
      }
      if let timeout, timeout < .infinity { command.setDeadline(timeout) }
      var lines = [line.bytes]
      if let seal { lines.append(Array("Global:Ping \(seal)".utf8)) }
      if pending.isEmpty { activity.waitsSince = .now() }
      pending.append(command)
      for line in lines { report(.toAgent, line[...]) }
      process.write(Array(lines.map { $0 + [0x0a] }.joined()))
    }
    return command
  }

  /// How things stand.
  func activityNow() async -> Activity { await onQueue { $0.activity } }

  private func onQueue<T: Sendable>(
    _ body: @escaping @Sendable (CardReaderAgent) -> T
  ) async -> T {
    await withCheckedContinuation { continuation in
      queue.async { continuation.resume(returning: body(self)) }
    }
  }

  private func take(_ bytes: ArraySlice<UInt8>) {
    report(.fromAgent, bytes)
    let line = AgentLine(bytes)
    switch line {
    case .ok, .error: takeAnswer(line)
    case .reader(let name): changeReader(name)
    case .card(let id): tell(.event(.card(id: id, reader: attached)))
    case .log(let text):
      pending.first?.take(logText: text)
      tell(.event(.log(text)))
    }
  }

  // An answer that belongs to no command is part of a log text.
  private func takeAnswer(_ line: AgentLine) {
    guard let command = pending.first else { return tell(.event(.log(line.text))) }
    if let seal = command.seal {
      if line != .ok(" \(seal)") {
        // Only the last one before the seal's can be the command's.
        if let earlier = command.take(line) { tell(.event(.log(earlier.text))) }
        return
      }
    } else {
      _ = command.take(line)
    }
    _ = pending.removeFirst()
    activity.lastAnswered = .now()
    activity.waitsSince = pending.isEmpty ? nil : activity.lastAnswered
    command.settleByAnswer()
    if pending.isEmpty { tell(.idle) }
  }

  private func changeReader(_ name: ReaderName?) {
    let previous = attached
    attached = name
    switch (name, previous) {
    case (let name?, let previous?): tell(.event(.replaced(name, previous: previous)))
    case (let name?, nil): tell(.event(.attached(name)))
    case (nil, _): tell(.event(.gone(previous: previous)))
    }
  }

  private func takeErrorOutput(_ bytes: ArraySlice<UInt8>) {
    lastErrorOutput = (lastErrorOutput + bytes).suffix(4096)
    switch stderr {
    case .ignore: break
    case .function(let take): take(String(decoding: bytes, as: UTF8.self))
    case .inherit:
      let bytes = Array(bytes)
      standardError.async { writeToStandardError(bytes) }
    }
  }

  private func finish(_ status: AgentStatus?) {
    let end = CardReaderError.ended(
      status, errorOutput: String(decoding: lastErrorOutput, as: UTF8.self))
    self.status = status
    self.end = end
    process = nil
    attached = nil
    activity.waitsSince = nil
    while let command = pending.removeFirst() { command.settle(.failure(end)) }
    tell(.event(.ended(status, reason: end.description)))
    for continuation in awaitsEnd { continuation.resume(returning: status) }
    awaitsEnd = []
  }

  private func report(_ direction: Direction, _ line: ArraySlice<UInt8>) {
    trace?(Date(), direction, String(decoding: line, as: UTF8.self))
  }
}

// Whoever reads this program's standard error may stop, and must not stop the agent.
private let standardError = DispatchQueue(label: "card reader agent's standard error")
