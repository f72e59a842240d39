// What macOS and Linux do differently, all of it: streams to a child that no other child inherits,
// and starting a program in a session of its own.

import Foundation

#if canImport(Darwin)
  /// The error of starting a program for a processor that this machine can't stand in for.
  let wrongProcessor = EBADARCH
  // With the second flag, what else this program has open stays out of the child.
  private let spawnFlags = Int32(POSIX_SPAWN_SETSID) | Int32(POSIX_SPAWN_CLOEXEC_DEFAULT)
  private let sendFlags: Int32 = 0
#else
  let wrongProcessor: Int32 = -1
  private let spawnFlags: Int32 = 0x80  // POSIX_SPAWN_SETSID, which the header shows only to C
  private let sendFlags = Int32(MSG_NOSIGNAL)
#endif

/// A call that failed, with its `errno`.
struct SystemError: Error { let code: Int32 }

/// The two ends of a stream between here and a child, one of its standard streams. Ours never
/// blocks, and no child inherits either by chance. Whoever makes one closes both.
///
/// It is a socket: not every system spares the writer of a pipe the signal when nobody reads any
/// more.
struct ChildStream {
  let ours: Int32
  let theirs: Int32

  init() throws {
    var ends: [Int32] = [-1, -1]
    #if canImport(Darwin)
      let made = socketpair(AF_UNIX, SOCK_STREAM, 0, &ends)
    #else
      let made = socketpair(AF_UNIX, Int32(SOCK_STREAM.rawValue | SOCK_CLOEXEC.rawValue), 0, &ends)
    #endif
    guard made == 0 else { throw SystemError(code: errno) }
    // 0 to 2 become the child's own streams one after the other; an end there would be lost. They
    // are free here only in a program that has closed its own.
    for i in 0...1 where ends[i] <= 2 {
      let moved = fcntl(ends[i], F_DUPFD_CLOEXEC, 3)
      let code = errno
      _ = close(ends[i])
      guard moved >= 0 else {
        _ = close(ends[1 - i])
        throw SystemError(code: code)
      }
      ends[i] = moved
    }
    (ours, theirs) = (ends[0], ends[1])
    #if canImport(Darwin)
      var on: Int32 = 1
      let size = socklen_t(MemoryLayout<Int32>.size)
      for end in ends { _ = fcntl(end, F_SETFD, FD_CLOEXEC) }
      _ = setsockopt(ours, SOL_SOCKET, SO_NOSIGPIPE, &on, size)
    #endif
    _ = fcntl(ours, F_SETFL, O_NONBLOCK)
  }
}

/// Writes to our end of a stream to a child. Returns the number of bytes taken; `EAGAIN` as an
/// error says that it is full.
func sendToChild(_ stream: Int32, _ bytes: ArraySlice<UInt8>) -> Result<Int, SystemError> {
  while true {
    let count = bytes.withUnsafeBytes { send(stream, $0.baseAddress, $0.count, sendFlags) }
    if count >= 0 { return .success(count) }
    if errno != EINTR { return .failure(SystemError(code: errno)) }
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
  while true {
    let found = waitpid(process, &status, 0)
    if found == process { break }
    if found < 0 && errno != EINTR { return nil }
  }
  let signal = status & 0x7f
  return signal == 0 ? .exited(status >> 8 & 0xff) : .signaled(signal)
}

/// Passes bytes on to this program's standard error, whoever may have stopped reading it: the signal
/// for that stays away. May wait, so it takes a thread that is nobody's.
func writeToStandardError(_ bytes: [UInt8]) {
  var brokenPipe = sigset_t()
  var before = sigset_t()
  sigemptyset(&brokenPipe)
  sigaddset(&brokenPipe, SIGPIPE)
  pthread_sigmask(SIG_BLOCK, &brokenPipe, &before)
  defer { pthread_sigmask(SIG_SETMASK, &before, nil) }
  var rest = bytes[...]
  while !rest.isEmpty {
    let count = rest.withUnsafeBytes { write(STDERR_FILENO, $0.baseAddress, $0.count) }
    if count > 0 { rest = rest.dropFirst(count) }
    if count >= 0 || errno == EINTR { continue }
    if errno == EPIPE && sigismember(&before, SIGPIPE) == 0 {
      var signal: Int32 = 0
      var waiting = sigset_t()
      sigpending(&waiting)
      if sigismember(&waiting, SIGPIPE) == 1 { sigwait(&brokenPipe, &signal) }
    }
    return
  }
}
