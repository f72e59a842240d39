import Foundation

/// What a command or a wait fails with, besides `CancellationError`.
public enum CardReaderError: Error, Equatable, Sendable {
  /// No reader is attached.
  case noReader
  /// Another reader is attached, or the same one again, than when the command was sent. Nothing was
  /// done.
  case readerChanged(String)
  /// The reader or its library failed. The number is the library's; a configuration that fails has
  /// none.
  case readerFailed(number: Int?, message: String)
  /// The agent did not understand the line, and says why; or the reader's name contains a colon, and
  /// no line can address it.
  case rejected(String)
  /// The agent does not know these settings, sorted, as `type.name`, and has applied the others.
  case unknownSettings([String])
  /// No answer came in time. The command may have been executed, or may yet be.
  case commandTimeout
  /// The agent has ended, or none is running.
  case agentEnded(status: AgentStatus?, reason: String)
  /// The agent can't be run. The code is the system's, such as `ENOENT`.
  case agentStart(systemCode: String, reason: String)
  /// An option, an argument or a timeout is wrong. Nothing was sent.
  case invalidArgument(String)
}

/// How a process ended.
public enum AgentStatus: Equatable, Sendable {
  /// By itself; 0 when all is well.
  case exited(Int32)
  /// By a signal.
  case signaled(Int32)
}

extension CardReaderError: LocalizedError, CustomStringConvertible {
  /// A code that is the same in all languages and does not change.
  public var code: String { told.code }
  /// The error in words for people.
  public var description: String { told.message }
  /// The same, for `localizedDescription`.
  public var errorDescription: String? { description }

  private var told: (code: String, message: String) {
    switch self {
    case .noReader: return ("NO_READER", "no reader is attached")
    case .readerChanged(let message): return ("READER_CHANGED", message)
    case .readerFailed(_, let message): return ("READER_FAILED", message)
    case .rejected(let message): return ("REJECTED", message)
    case .unknownSettings(let names):
      return ("UNKNOWN_SETTINGS", "unknown settings: \(names.joined(separator: ", "))")
    case .commandTimeout: return ("COMMAND_TIMEOUT", "no answer came in time")
    case .agentEnded(_, let reason): return ("AGENT_ENDED", reason)
    case .agentStart(_, let reason): return ("AGENT_START", reason)
    case .invalidArgument(let message): return ("INVALID_ARGUMENT", message)
    }
  }

  static let notRunning = CardReaderError.agentEnded(
    status: nil, reason: "the agent is not running")

  /// How an agent ended by itself, with the last of what it wrote to standard error.
  static func ended(_ status: AgentStatus?, errorOutput: [UInt8]) -> CardReaderError {
    var reason: String
    switch status {
    case .exited(let code)?: reason = "the agent exited with status \(code)"
    case .signaled(let number)?: reason = "the agent was killed by \(name(ofSignal: number))"
    case nil: reason = "the agent has ended"
    }
    let text = String(decoding: errorOutput, as: UTF8.self)
      .trimmingCharacters(in: .whitespacesAndNewlines)
    if !text.isEmpty { reason += ": \(text)" }
    return .agentEnded(status: status, reason: reason)
  }

  /// Why a program could not be started.
  static func cannotStart(_ path: String, _ code: Int32) -> CardReaderError {
    let name = name(ofError: code)
    let hint = "; Rosetta is needed: softwareupdate --install-rosetta --agree-to-license"
    return .agentStart(
      systemCode: name,
      reason: "cannot start \(path): \(name)\(name == "EBADARCH" ? hint : "")")
  }

  /// Whether a start that failed like this may succeed later, since only the machine is too busy.
  var isRetryable: Bool {
    guard case .agentStart(let code, _) = self else { return true }
    return ["EAGAIN", "ENOMEM", "EMFILE", "ENFILE", "ETXTBSY"].contains(code)
  }
}

private func name(ofSignal number: Int32) -> String {
  let names = [
    SIGHUP: "SIGHUP", SIGINT: "SIGINT", SIGQUIT: "SIGQUIT", SIGILL: "SIGILL", SIGTRAP: "SIGTRAP",
    SIGABRT: "SIGABRT", SIGBUS: "SIGBUS", SIGFPE: "SIGFPE", SIGKILL: "SIGKILL",
    SIGSEGV: "SIGSEGV", SIGPIPE: "SIGPIPE", SIGALRM: "SIGALRM", SIGTERM: "SIGTERM",
    SIGUSR1: "SIGUSR1", SIGUSR2: "SIGUSR2",
  ]
  return names[number] ?? "signal \(number)"
}

private func name(ofError code: Int32) -> String {
  let names = [
    ENOENT: "ENOENT", EACCES: "EACCES", ENOEXEC: "ENOEXEC", ENOTDIR: "ENOTDIR", EPERM: "EPERM",
    EAGAIN: "EAGAIN", ENOMEM: "ENOMEM", EMFILE: "EMFILE", ENFILE: "ENFILE", ETXTBSY: "ETXTBSY",
    wrongProcessor: "EBADARCH",
  ]
  return names[code] ?? "error \(code)"
}
