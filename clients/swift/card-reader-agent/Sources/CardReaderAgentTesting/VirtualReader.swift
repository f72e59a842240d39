import CardReaderAgent
import Foundation

/// A card reader made of software, for the tests of an application: it is plugged and unplugged,
/// shows cards, fails and delays calls, and logs what the application does to it.
///
/// ```swift
/// let virtual = try await VirtualReader.start()
/// var options = CardReader.Options()
/// options.env = virtual.env
/// try await withCardReader(path: path, options: options) { reader in
///   try await reader.waitFor(.ready, timeout: 20)
///   try await virtual.hold("3AB1234/26")
///   try await reader.setLed(.green)
///   try await virtual.expect("led green")
/// }
/// await virtual.close()
/// ```
///
/// It exits with ``close()``, when nobody refers to it any more, and with this program, however that
/// ends. Its verbs throw ``VirtualReaderError`` with the reader's message.
public final class VirtualReader: Sendable {
  /// What to give to the agent or the application under test for its environment: this program's,
  /// and where this reader is.
  public let env: [String: String]

  private let program: String
  private let folder: String
  private let process: AgentProcess
  private let end: Task<Void, Never>

  /// Starts a reader and waits until it can be told something.
  ///
  /// - Parameters:
  ///   - program: the path of `virtual-reader`, by default `$VIRTUAL_READER`, or else the one that
  ///     `$PATH` leads to.
  ///   - plugged: whether it is plugged in, or waits for ``plug()``.
  public static func start(
    program: String? = nil, plugged: Bool = true
  ) async throws -> VirtualReader {
    var env = ProcessInfo.processInfo.environment
    let program = program ?? env["VIRTUAL_READER"] ?? "virtual-reader"
    let name = "virtual-reader-\(UUID().uuidString.prefix(8))"  // a socket's path must be short
    let folder = URL(fileURLWithPath: NSTemporaryDirectory()).appendingPathComponent(name).path
    try FileManager.default.createDirectory(
      atPath: folder, withIntermediateDirectories: true, attributes: [.posixPermissions: 0o700])
    env["VIRTUAL_READER_SOCKET"] = "\(folder)/reader.sock"
    do {
      let process = try AgentProcess(
        path: program,
        arguments: ["--socket", "\(folder)/reader.sock"] + (plugged ? [] : ["--unplugged"]),
        environment: env)
      process.write(Array("echo \"ready\"\n".utf8))
      _ = try await output(of: process, upTo: "= ready", orError: "the virtual reader has exited")
      return VirtualReader(env: env, program: program, folder: folder, process: process)
    } catch {
      try? FileManager.default.removeItem(atPath: folder)
      throw error
    }
  }

  private init(env: [String: String], program: String, folder: String, process: AgentProcess) {
    self.env = env
    self.program = program
    self.folder = folder
    self.process = process
    end = Task {
      for await event in process.events {
        if case .errorOutput(let bytes) = event { FileHandle.standardError.write(Data(bytes)) }
        if case .woken = event { process.signal(SIGKILL) }  // it has not ended after close()
      }
    }
  }

  deinit {
    process.closeInput()
    try? FileManager.default.removeItem(atPath: folder)
  }

  /// Unplugs the reader and ends it. Any number of tasks may call it.
  public func close() async {
    process.closeInput()
    process.wake(after: 5)
    await end.value
    try? FileManager.default.removeItem(atPath: folder)
  }

  /// Executes a verb, and returns its output without the last newline.
  @discardableResult
  public func execute(_ verb: String) async throws -> String {
    let process = try AgentProcess(
      path: program, arguments: ["--socket", "\(folder)/reader.sock", "--execute", verb],
      environment: env)
    process.closeInput()
    return try await output(of: process, orError: "failed: \(verb)").joined(separator: "\n")
  }

  /// Plugs the reader in.
  public func plug() async throws { try await execute("plug") }

  /// Unplugs the reader.
  public func unplug() async throws { try await execute("unplug") }

  /// Unplugs the reader and plugs it in again.
  public func replug() async throws { try await execute("replug") }

  /// Shows cards, each for a moment, one after the other: hexadecimal digits, and optionally a slash
  /// and the number of bits.
  public func queue(_ cards: String...) async throws {
    try await execute("card queue \(cards.joined(separator: " "))")
  }

  /// Holds up a card until it is removed.
  public func hold(_ card: String) async throws { try await execute("card hold \(card)") }

  /// Takes the held card away.
  public func remove() async throws { try await execute("card remove") }

  /// Lets a call of the reader's library fail, with this error number, 1 unless told. `when` is
  /// `once`, unless told, or `times 2`, `at 3`, `from 4`, `always`.
  public func fail(_ call: String, error: Int? = nil, when: String? = nil) async throws {
    try await execute(
      "fail \(call)\(error.map { " error \($0)" } ?? "")\(when.map { " \($0)" } ?? "")")
  }

  /// Lets the next call of the reader's library hang until ``release()``.
  public func hang(_ call: String) async throws { try await execute("hang \(call)") }

  /// Lets a call of the reader's library take this time from now on.
  public func delay(_ call: String, _ time: TimeSpan) async throws {
    try await execute("delay \(call) \(milliseconds(time))")
  }

  /// Ends the calls that hang or are delayed now.
  public func release() async throws { try await execute("release") }

  /// Clears all that ``fail(_:error:when:)``, ``hang(_:)`` and ``delay(_:_:)`` have set.
  public func clear() async throws { try await execute("clear") }

  /// Waits for the next event of the reader's log that begins with the first word of the pattern
  /// and contains its other words, for instance `led green` or `beep short 2`. Fails after the time,
  /// 5 seconds by default. The next call looks at later events only.
  public func expect(_ pattern: String, within time: TimeSpan? = nil) async throws {
    try await execute("expect \(pattern)\(limit(time))")
  }

  /// Waits for the time, 0.5 seconds by default, and fails if such an event comes.
  public func expectNo(_ pattern: String, within time: TimeSpan? = nil) async throws {
    try await execute("expect no \(pattern)\(limit(time))")
  }

  /// The last events of the log, the oldest first, each with its time in seconds and the number of
  /// the agent that it concerns.
  public func events(_ count: Int = 1_000_000) async throws -> [String] {
    try await execute("events \(count)").split(separator: "\n").map(String.init)
  }

  private func limit(_ time: TimeSpan?) -> String {
    time.map { " within \(milliseconds($0))" } ?? ""
  }

  private func milliseconds(_ time: TimeSpan) -> Int { Int((time.seconds * 1000).rounded(.up)) }
}

// The lines up to a last one, or without one all, if the process exits with status 0.
private func output(
  of process: AgentProcess, upTo last: String? = nil, orError message: String
) async throws -> [String] {
  var lines: [String] = []
  var errorOutput: [UInt8] = []
  for await event in process.events {
    switch event {
    case .line(let line):
      lines.append(String(decoding: line, as: UTF8.self))
      if lines.last == last { return lines }
    case .errorOutput(let bytes): errorOutput += bytes
    case .woken: break
    case .ended(.exited(0)?) where last == nil: return lines
    case .ended: throw VirtualReaderError(message, errorOutput)
    }
  }
  process.signal(SIGKILL)  // the task was cancelled
  throw CancellationError()
}

/// A verb was wrong or failed, or what was expected did not come.
public struct VirtualReaderError: Error, LocalizedError, CustomStringConvertible, Sendable {
  /// The reader's message.
  public let description: String
  /// The same, for `localizedDescription`.
  public var errorDescription: String? { description }

  init(_ text: String, _ errorOutput: [UInt8] = []) {
    let message = String(decoding: errorOutput, as: UTF8.self)
      .trimmingCharacters(in: .whitespacesAndNewlines)
    description = message.isEmpty ? text : message
  }
}
