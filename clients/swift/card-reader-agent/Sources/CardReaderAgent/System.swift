// What macOS and Linux do differently, all of it: streams to a child that no other child inherits,
// and starting a program in a session of its own.

import Foundation

#if canImport(Darwin)
  /// The error of starting a program for a processor that this machine can't stand in for.
  let wrongProcessor = EBADARCH
  // With the second flag, what else this program has open stays out of the child.
  private let spawnFlags = Int32(POSIX_SPAWN_SETSID) | Int32(POSIX_SPAWN_CLOEXEC_DEFAULT)
  private let streamType = SOCK_STREAM
  /// The flags of `send`, for it to raise no signal.
  let sendFlags: Int32 = 0
#else
  let wrongProcessor: Int32 = -1
  private let spawnFlags: Int32 = 0x80  // POSIX_SPAWN_SETSID, which the header shows only to C
  private let streamType = Int32(SOCK_STREAM.rawValue | SOCK_CLOEXEC.rawValue)
  let sendFlags = Int32(MSG_NOSIGNAL)
#endif

/// A call that failed, with its `errno`.
struct SystemError: Error { let code: Int32 }

/// The two ends of a stream between here and a child, one of its standard streams. Ours never
/// blocks, and no child inherits either by chance. Code that makes one closes both.
///
/// It is a socket: not every system spares the writer of a pipe the signal when nobody reads any
/// more.
struct ChildStream {
  let ours: Int32
  let theirs: Int32

  init() throws {
    var ends: [Int32] = [-1, -1]
    guard socketpair(AF_UNIX, streamType, 0, &ends) == 0 else { throw SystemError(code: errno) }
    // 0 to 2 become the child's own streams one after the other; an end there would be lost. They
    // are free here only in a program that has closed its own.
    (ours, theirs) = (fcntl(ends[0], F_DUPFD_CLOEXEC, 3), fcntl(ends[1], F_DUPFD_CLOEXEC, 3))
    let code = errno
    for end in ends { _ = close(end) }
    if ours < 0 || theirs < 0 {
      _ = (close(ours), close(theirs))
      throw SystemError(code: code)
    }
    #if canImport(Darwin)
      var on: Int32 = 1
      let size = socklen_t(MemoryLayout<Int32>.size)
      _ = setsockopt(ours, SOL_SOCKET, SO_NOSIGPIPE, &on, size)
    #endif
    _ = fcntl(ours, F_SETFL, O_NONBLOCK)
  }
}

/// Starts a program with these descriptors as its standard streams, in a session of its own, so
/// that Ctrl-C in the terminal of this one does not reach it, and with all signals as usual,
/// whatever this program ignores or blocks. A path without a slash is looked for on `$PATH`. Returns the
/// process id.
func spawn(
  _ path: String, _ arguments: [String], environment: [String: String], input: Int32,
  output: Int32, error: Int32
) throws -> pid_t {
  #if canImport(Darwin)
    var actions: posix_spawn_file_actions_t?
    var attributes: posix_spawnattr_t?
  #else
    var actions = posix_spawn_file_actions_t()
    var attributes = posix_spawnattr_t()
  #endif
  posix_spawn_file_actions_init(&actions)
  posix_spawnattr_init(&attributes)
  defer {
    posix_spawn_file_actions_destroy(&actions)
    posix_spawnattr_destroy(&attributes)
  }
  for (standard, stream) in [input, output, error].enumerated() {
    posix_spawn_file_actions_adddup2(&actions, stream, Int32(standard))
  }
  var usual = sigset_t()
  var blocked = sigset_t()
  sigfillset(&usual)
  sigdelset(&usual, SIGKILL)
  sigdelset(&usual, SIGSTOP)
  sigemptyset(&blocked)
  posix_spawnattr_setsigdefault(&attributes, &usual)
  posix_spawnattr_setsigmask(&attributes, &blocked)
  let flags = spawnFlags | Int32(POSIX_SPAWN_SETSIGDEF) | Int32(POSIX_SPAWN_SETSIGMASK)
  posix_spawnattr_setflags(&attributes, Int16(flags))

  let arguments = ([path] + arguments).map { strdup($0) } + [nil]
  let variables = environment.map { strdup("\($0.key)=\($0.value)") } + [nil]
  defer { for text in arguments + variables { free(text) } }
  var process = pid_t()
  let code = posix_spawnp(&process, path, &actions, &attributes, arguments, variables)
  guard code == 0 else { throw SystemError(code: code) }
  return process
}

/// Waits for a child's end and leaves it as it is, so that its process id stays its own until
/// `reap`.
func awaitEnd(of process: pid_t) {
  var information = siginfo_t()
  while waitid(P_PID, id_t(process), &information, WEXITED | WNOWAIT) != 0 && errno == EINTR {}
}

/// Takes leave of a child that has ended, and tells how; nil when somebody else did before.
func reap(_ process: pid_t) -> AgentStatus? {
  var status: Int32 = 0
  while waitpid(process, &status, 0) < 0 {
    if errno != EINTR { return nil }
  }
  let signal = status & 0x7f
  return signal == 0 ? .exited(status >> 8 & 0xff) : .signaled(signal)
}

/// Passes bytes on to this program's standard error, that process may have stopped reading it: the signal
/// for that stays away. May wait, so it takes a thread that is nobody's.
func writeToStandardError(_ bytes: [UInt8]) {
  var (brokenPipe, before, waiting) = (sigset_t(), sigset_t(), sigset_t())
  sigemptyset(&brokenPipe)
  sigaddset(&brokenPipe, SIGPIPE)
  pthread_sigmask(SIG_BLOCK, &brokenPipe, &before)
  var rest = bytes[...]
  while !rest.isEmpty {
    let count = rest.withUnsafeBytes { write(STDERR_FILENO, $0.baseAddress, $0.count) }
    if count < 0 && errno != EINTR { break }
    rest = rest.dropFirst(max(0, count))
  }
  sigpending(&waiting)
  if sigismember(&before, SIGPIPE) == 0 && sigismember(&waiting, SIGPIPE) == 1 {
    var signal: Int32 = 0
    sigwait(&brokenPipe, &signal)
  }
  pthread_sigmask(SIG_SETMASK, &before, nil)
}
