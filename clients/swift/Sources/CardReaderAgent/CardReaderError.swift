import Foundation

/// What a command or a wait fails with, besides `CancellationError`.
public enum CardReaderError: Error, Equatable, Sendable {
  /// No reader is attached.
  case noReader
  /// Another reader is attached, or the same one anew, than when the command was sent. Nothing was
  /// done.
  case readerChanged
  /// The reader or its library failed. The number is the library's; a configuration that fails has
  /// none.
  case readerFailed(number: Int?, message: String)
  /// The agent did not understand the line, and says why; or the reader's name has a colon in it,
  /// and can't be addressed.
  case rejected(String)
  /// The agent does not know these settings, sorted, as `type.name`, and has applied the others.
  case unknownSettings([String])
  /// No answer came in time. The command may have been carried out, or may yet be.
  case deadline
  /// The agent has ended, or none is running.
  case agentEnded(status: AgentStatus?, reason: String)
  /// The agent can't be run. The code is the system's `errno`.
  case agentStart(code: Int32, reason: String)
  /// The argument can't be told in one line of the protocol. Nothing was sent.
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
  /// The error in words for people.
  public var description: String {
    switch self {
    case .noReader: return "no reader is attached"
    case .readerChanged: return "another reader is attached than when the command was sent"
    case .readerFailed(_, let message), .rejected(let message): return message
    case .unknownSettings(let names): return "unknown settings: \(names.joined(separator: ", "))"
    case .deadline: return "no answer came in time"
    case .agentEnded(_, let reason), .agentStart(_, let reason): return reason
    case .invalidArgument(let message): return message
    }
  }

  /// The same, for `localizedDescription`.
  public var errorDescription: String? { description }

  static let notRunning = CardReaderError.agentEnded(
    status: nil, reason: "the agent is not running")

  /// How an agent ended, with the last of what it wrote on standard error.
  static func ended(_ status: AgentStatus?, errorOutput: String) -> CardReaderError {
    var reason: String
    switch status {
    case .exited(let code)?: reason = "the agent ended with status \(code)"
    case .signaled(let number)?: reason = "the agent was ended by \(name(ofSignal: number))"
    case nil: reason = "the agent has ended"
    }
    let said = errorOutput.trimmingCharacters(in: .whitespacesAndNewlines)
    if !said.isEmpty { reason += ": \(said)" }
    return .agentEnded(status: status, reason: reason)
  }

  /// Why a program could not be started. `wrongProcessor` is the system's error for one that is
  /// built for another processor.
  static func cannotStart(
    _ path: String, _ error: SystemError, wrongProcessor: Int32? = wrongProcessor
  ) -> CardReaderError {
    var why = "\(error.text) (\(name(ofError: error.code)))"
    if error.code == wrongProcessor {
      why =
        "it runs under Rosetta on this Mac, which is not installed: "
        + "softwareupdate --install-rosetta --agree-to-license (EBADARCH)"
    }
    return .agentStart(code: error.code, reason: "cannot start \(path): \(why)")
  }

  /// Whether a start that failed like this may succeed later, since only the machine is too busy.
  var mayPass: Bool {
    guard case .agentStart(let code, _) = self else { return true }
    return [EAGAIN, ENOMEM, EMFILE, ENFILE, ETXTBSY].contains(code)
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
  ]
  return names[code] ?? "error \(code)"
}
