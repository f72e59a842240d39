/// A time span: a number of seconds, `.milliseconds(200)`, or made of a `Duration`.
public struct TimeSpan: Hashable, Sendable, ExpressibleByFloatLiteral, ExpressibleByIntegerLiteral {
  /// The length in seconds.
  public let seconds: Double

  /// A number of seconds as written.
  public init(floatLiteral seconds: Double) { self.seconds = seconds }
  /// A number of seconds as written.
  public init(integerLiteral seconds: Int) { self.seconds = Double(seconds) }
  /// The same as a duration of the standard library's.
  @available(macOS 13, iOS 16, tvOS 16, watchOS 9, *)
  public init(_ duration: Duration) {
    let (seconds, attoseconds) = duration.components
    self.seconds = Double(seconds) + Double(attoseconds) / 1e18
  }

  /// A number of seconds.
  public static func seconds(_ seconds: Double) -> TimeSpan { TimeSpan(floatLiteral: seconds) }
  /// A number of milliseconds.
  public static func milliseconds(_ count: Double) -> TimeSpan { .seconds(count / 1000) }
  /// A command's timeout that never passes.
  public static let never = TimeSpan.seconds(.infinity)
}

/// Returns after the time, or throws when the task is cancelled. A time without an end is a year.
func sleep(_ time: TimeSpan) async throws {
  try await Task.sleep(nanoseconds: UInt64(max(0, min(time.seconds, 366 * 86_400)) * 1e9))
}

/// Returns what the function returns, or throws `commandTimeout` when the time has passed.
func within<T: Sendable>(
  _ timeout: TimeSpan?, _ function: @escaping @Sendable () async throws -> T
) async throws -> T {
  try await withThrowingTaskGroup(of: T?.self) { group in
    group.addTask { try await function() }
    group.addTask {
      try await sleep(timeout ?? .never)
      return nil
    }
    defer { group.cancelAll() }
    guard let result = try await group.next() ?? nil else { throw CardReaderError.commandTimeout }
    return result
  }
}
