import CardReaderAgent
import Dispatch
import Foundation

/// A card reader made of software, for the tests of an application: it is plugged in and pulled out,
/// holds up cards, fails and dawdles as it is told, and knows what the application did to it.
///
/// ```swift
/// let virtual = try await VirtualReader.start()
/// var options = CardReader.Options()
/// options.env = virtual.env
/// let reader = CardReader(path: path, options: options)
/// await reader.start()
/// try await reader.waitForReader(timeout: 20)
/// try await virtual.hold("3AB1234/26")
/// try await reader.setLed(.green)
/// try await virtual.expect("led green")
/// await reader.close()
/// await virtual.close()
/// ```
///
/// It ends with ``close()``, when nobody refers to it any more, and with this program, however that
/// ends. All that it is told throws ``VirtualReaderError`` with the reader's words.
public final class VirtualReader: Sendable {
  /// What to give to the agent or the application under test for its environment: this program's,
  /// and where this reader is.
  public let env: [String: String]

  private let program: String
  private let folder: String
  private let process: Child
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
    let program = try program ?? env["VIRTUAL_READER"] ?? search(env["PATH"] ?? "")
    let name = "virtual-reader-\(UUID().uuidString.prefix(8))"  // a socket's path must be short
    let folder = URL(fileURLWithPath: NSTemporaryDirectory()).appendingPathComponent(name).path
    try FileManager.default.createDirectory(
      atPath: folder, withIntermediateDirectories: true, attributes: [.posixPermissions: 0o700])
    env["VIRTUAL_READER_SOCKET"] = "\(folder)/reader.sock"
    do {
      let process = try Child(
        program, ["--socket", "\(folder)/reader.sock"] + (plugged ? [] : ["--unplugged"]), env)
      process.write("echo \"ready\"\n")
      var said = ""
      for await told in process.told {
        switch told {
        case .line("= ready"):
          return VirtualReader(env: env, program: program, folder: folder, process: process)
        case .line: break
        case .errorOutput(let text): said += text
        case .ended: throw VirtualReaderError("the virtual reader has ended: \(said)")
        }
      }
      throw CancellationError()
    } catch {
      try? FileManager.default.removeItem(atPath: folder)
      throw error
    }
  }

  private init(env: [String: String], program: String, folder: String, process: Child) {
    self.env = env
    self.program = program
    self.folder = folder
    self.process = process
    end = Task {
      for await told in process.told {
        if case .errorOutput(let text) = told { FileHandle.standardError.write(Data(text.utf8)) }
      }
    }
  }

  deinit {
    process.closeInput()
    try? FileManager.default.removeItem(atPath: folder)
  }

  /// Pulls the reader out and ends it. More than one may call it.
  public func close() async {
    process.closeInput()
    let limit = Task { [process] in
      try await Task.sleep(nanoseconds: 5_000_000_000)
      process.kill()
    }
    await end.value
    limit.cancel()
    try? FileManager.default.removeItem(atPath: folder)
  }

  /// Has a verb carried out, and returns what it answers, without the last line feed.
  @discardableResult
  public func execute(_ verb: String) async throws -> String {
    let arguments = ["--socket", "\(folder)/reader.sock", "--execute", verb]
    let process = try Child(program, arguments, env)
    process.closeInput()
    var lines: [String] = []
    var said = ""
    for await told in process.told {
      switch told {
      case .line(let line): lines.append(line)
      case .errorOutput(let text): said += text
      case .ended(.exited(0)?): return lines.joined(separator: "\n")
      case .ended: throw VirtualReaderError(said.isEmpty ? "failed: \(verb)" : said)
      }
    }
    process.kill()
    throw CancellationError()
  }

  /// Plugs the reader in.
  public func plug() async throws { try await execute("plug") }

  /// Pulls the reader out.
  public func unplug() async throws { try await execute("unplug") }

  /// Pulls the reader out and plugs it in at once.
  public func replug() async throws { try await execute("replug") }

  /// Shows cards, each for a moment, one after the other: hexadecimal digits, and perhaps a slash and
  /// the number of bits.
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

  /// Lets a call of the reader's library take so many seconds from now on.
  public func delay(_ call: String, _ seconds: TimeInterval) async throws {
    try await execute("delay \(call) \(milliseconds(seconds))")
  }

  /// Ends the calls that hang or are delayed just now.
  public func release() async throws { try await execute("release") }

  /// Drops all that ``fail(_:error:when:)``, ``hang(_:)`` and ``delay(_:_:)`` have set.
  public func clear() async throws { try await execute("clear") }

  /// Waits for the next entry of the reader's record that begins with the first word of the pattern
  /// and has its other words behind, for instance `led green` or `beep short 2`. Fails after so many
  /// seconds, 5 unless told. What came before the entry is not looked at again.
  public func expect(_ pattern: String, within seconds: TimeInterval? = nil) async throws {
    try await execute("expect \(pattern)\(limit(seconds))")
  }

  /// Waits for so many seconds, 0.5 unless told, and fails if such an entry comes.
  public func expectNo(_ pattern: String, within seconds: TimeInterval? = nil) async throws {
    try await execute("expect no \(pattern)\(limit(seconds))")
  }

  /// The last entries of the record, the oldest first, each with its time in seconds and the number
  /// of the agent that it concerns.
  public func events(_ count: Int = 1_000_000) async throws -> [String] {
    try await execute("events \(count)").split(separator: "\n").map(String.init)
  }

  private func limit(_ seconds: TimeInterval?) -> String {
    seconds.map { " within \(milliseconds($0))" } ?? ""
  }

  private func milliseconds(_ seconds: TimeInterval) -> Int { Int((seconds * 1000).rounded(.up)) }

  private static func search(_ path: String) throws -> String {
    let programs = path.split(separator: ":").map { "\($0)/virtual-reader" }
    guard let program = programs.first(where: FileManager.default.isExecutableFile) else {
      throw VirtualReaderError("no virtual-reader on the path; VIRTUAL_READER can name one")
    }
    return program
  }
}

/// The virtual reader does not do what it was told, or what was expected of it did not come.
public struct VirtualReaderError: Error, LocalizedError, CustomStringConvertible, Sendable {
  /// The reader's words.
  public let description: String
  /// The same, for `localizedDescription`.
  public var errorDescription: String? { description }

  init(_ text: String) { description = text.trimmingCharacters(in: .whitespacesAndNewlines) }
}

/// A program that was started, and what it tells.
private final class Child: Sendable {
  enum Told: Sendable {
    case line(String)
    case errorOutput(String)
    case ended(AgentStatus?)
  }

  let told: AsyncStream<Told>
  private let process: AgentProcess
  private let queue = DispatchQueue(label: "virtual reader")

  init(_ program: String, _ arguments: [String], _ env: [String: String]) throws {
    let (told, tell) = AsyncStream.makeStream(of: Told.self)
    self.told = told
    process = try queue.sync { [queue] in
      do {
        return try AgentProcess(
          path: program, arguments: arguments, environment: env, queue: queue,
          listener: .init(
            line: { tell.yield(.line(String(decoding: $0, as: UTF8.self))) },
            errorOutput: { tell.yield(.errorOutput(String(decoding: $0, as: UTF8.self))) },
            end: {
              tell.yield(.ended($0))
              tell.finish()
            }))
      } catch let error as SystemError {
        throw VirtualReaderError("cannot start \(program): \(error.text)")
      }
    }
  }

  func write(_ text: String) { queue.async { [process] in process.write(Array(text.utf8)) } }
  func closeInput() { queue.async { [process] in process.closeInput() } }
  func kill() { queue.async { [process] in process.signal(SIGKILL) } }
}
