/// The commands that were sent and not yet answered, the oldest first. A command to a reader is
/// written between two pings with fresh tokens, so that text of the reader's library that looks like
/// an answer or a card does no harm: the command's answer is the last line before the second ping's,
/// and the agent does not poll for cards after the first one's.
struct PendingCommands {
  /// What a line that looks like an answer comes to.
  enum Outcome: Equatable {
    /// Nothing yet. The text is that of a line that turns out to be no answer.
    case pending(log: String?)
    /// The oldest command is settled. The name is that of the attached reader if the answer names
    /// another one than the agent's `Reader:` lines did; `Global` is none.
    case settled(correction: [UInt8]?)
  }

  private struct Command {
    let command: ReaderCommand
    let limit: Double
    let seal: String
    let hasLine: Bool  // or is a ping that nobody waits for
    let fence: String?
    var isFenced = false
    var continuation: CheckedContinuation<String, any Error>?  // until it is settled
    var answer: (line: AgentLine, text: String, attached: [UInt8]?)?
    var unknownSettings: Set<String> = []
  }

  private var commands: [Int: Command] = [:]  // by consecutive numbers
  private var first = 0
  private(set) var nextNumber = 0

  var isEmpty: Bool { commands.isEmpty }
  /// Whether the agent is executing the oldest command.
  var isExecuting: Bool { commands[first]?.isFenced ?? false }
  /// The earliest time limit of those that are not settled.
  var nextLimit: Double {
    commands.values.lazy.filter { $0.continuation != nil }.map(\.limit).min() ?? .infinity
  }

  /// Adds a command with its line, or without one for a ping that nobody waits for, and returns the
  /// lines to send.
  mutating func append(
    _ command: ReaderCommand, _ line: [UInt8]?, limit: Double,
    _ continuation: CheckedContinuation<String, any Error>?
  ) -> [[UInt8]] {
    var fence: String?
    if case .ping = command {} else { fence = token() }
    let seal = token()
    commands[nextNumber] = Command(
      command: command, limit: limit, seal: seal, hasLine: line != nil, fence: fence,
      continuation: continuation)
    nextNumber += 1
    return [fence.map(ping), line, ping(seal)].compactMap { $0 }
  }

  /// Takes a line that looks like an answer.
  mutating func take(answer: AgentLine, _ text: String, attached: [UInt8]?) -> Outcome {
    guard let command = commands[first] else { return .pending(log: text) }
    if let fence = command.fence, !command.isFenced {
      guard answer == .ok(" \(fence)") else { return .pending(log: text) }
      commands[first]?.isFenced = true
      return .pending(log: nil)
    }
    if answer == .ok(" \(command.seal)") {
      settle(first, result(of: command))
      commands[first] = nil
      first += 1
      return .settled(correction: correction(command))
    }
    if !command.hasLine { return .pending(log: text) }
    commands[first]?.answer = (answer, text, attached)
    return .pending(log: command.answer?.text)
  }

  /// Notes whether a log text names a setting of the oldest command's.
  mutating func take(logText text: String) {
    let prefix = "Ignoring unexpected setting "
    guard text.hasPrefix(prefix), let command = commands[first]?.command else { return }
    let named = text.dropFirst(prefix.count)
    for (type, name, _) in command.settings
    where named == "type \(type)" || named.hasPrefix("\(type).\(name)=") {
      commands[first]?.unknownSettings.insert("\(type).\(name)")
    }
  }

  /// Resumes the caller that waits for the command, unless it was settled before.
  mutating func settle(_ number: Int, _ result: Result<String, any Error>) {
    commands[number]?.continuation?.resume(with: result)
    commands[number]?.continuation = nil
  }

  /// Fails those whose time limit has passed.
  mutating func settleLate(_ now: Double) {
    for (number, command) in commands where command.limit <= now {
      settle(number, .failure(CardReaderError.commandTimeout))
    }
  }

  /// Fails all, and forgets them.
  mutating func failAll(_ error: CardReaderError) {
    for number in first..<nextNumber { settle(number, .failure(error)) }
    commands = [:]
    first = nextNumber
  }

  private func result(of command: Command) -> Result<String, any Error> {
    switch command.answer?.line {
    case .ok? where !command.unknownSettings.isEmpty:
      return .failure(CardReaderError.unknownSettings(command.unknownSettings.sorted()))
    case .ok(let text)?:
      // The agent puts a space before the text of a ping.
      if case .ping = command.command { return .success(String(text.dropFirst())) }
      return .success("")
    case .error(let message)?: return .failure(failure(message))
    default: return .failure(CardReaderError.rejected("the agent did not answer the command"))
    }
  }

  private func correction(_ command: Command) -> [UInt8]? {
    guard let answer = command.answer, case .error(let message) = answer.line else { return nil }
    if failure(message) == .noReader { return answer.attached == nil ? nil : Array("Global".utf8) }
    guard case .readerChanged = failure(message),
      let range = message.range(of: ", but the current reader is ")
    else { return nil }
    let name = Array(message[range.upperBound...].utf8)
    return name == answer.attached ? nil : name
  }
}

private func token() -> String { String(UInt64.random(in: 0 ... .max), radix: 36) }

private func ping(_ text: String) -> [UInt8] { Array("Global:Ping \(text)".utf8) }
