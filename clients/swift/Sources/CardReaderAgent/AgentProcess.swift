import Dispatch

#if canImport(Darwin)
  import Darwin
#elseif canImport(Musl)
  import Musl
#else
  import Glibc
#endif

/// A child process and its three streams. All that is here belongs to the queue it was given, on
/// which it also calls back; only the wait for the child's end takes a thread of its own.
///
/// Foundation's `Process` gives neither a session of the child's own nor pipes that are safe to
/// write to when the child has ended, so this starts the child itself.
package final class AgentProcess: @unchecked Sendable {
  /// What the owner is told of. `end` is the last, once all the child wrote has been told.
  package struct Listener {
    /// A line without its line feed.
    package var line: (ArraySlice<UInt8>) -> Void
    /// Whatever comes on standard error, as it comes.
    package var errorOutput: (ArraySlice<UInt8>) -> Void
    package var end: (AgentStatus?) -> Void

    package init(
      line: @escaping (ArraySlice<UInt8>) -> Void,
      errorOutput: @escaping (ArraySlice<UInt8>) -> Void,
      end: @escaping (AgentStatus?) -> Void
    ) {
      self.line = line
      self.errorOutput = errorOutput
      self.end = end
    }
  }

  package let id: pid_t
  private let queue: DispatchQueue
  private let listener: Listener
  private let input: Int32
  private let inputHasRoom: DispatchSourceWrite
  private var waitsForRoom = false
  private var inputIsOpen = true
  private var closesInput = false
  private var outgoing: [UInt8] = []
  private var sent = 0  // of these
  private var output: Inflow?
  private var errorOutput: Inflow?
  private var unfinishedLine: [UInt8] = []
  private var hasEnded = false

  /// Starts the program; throws `SystemError` when it can't be started.
  package init(
    path: String, arguments: [String] = [], environment: [String: String], queue: DispatchQueue,
    listener: Listener
  ) throws {
    var streams: [ChildStream] = []
    do {
      for _ in 0...2 { streams.append(try ChildStream()) }
      id = try spawn(
        path, arguments, environment: environment, input: streams[0].theirs,
        output: streams[1].theirs, error: streams[2].theirs)
    } catch {
      for stream in streams { _ = (close(stream.ours), close(stream.theirs)) }
      throw error
    }
    for stream in streams { _ = close(stream.theirs) }
    self.queue = queue
    self.listener = listener
    let input = streams[0].ours
    self.input = input
    inputHasRoom = DispatchSource.makeWriteSource(fileDescriptor: input, queue: queue)
    inputHasRoom.setEventHandler { [unowned self] in flush() }
    inputHasRoom.setCancelHandler { _ = close(input) }
    output = Inflow(streams[1].ours, queue) { [unowned self] in takeOutput($0) }
    errorOutput = Inflow(streams[2].ours, queue) { listener.errorOutput($0) }
    let id = id
    DispatchQueue(label: "card reader agent's end").async {
      awaitEnd(of: id)
      queue.async { self.finish() }  // keeps this object until then
    }
  }

  /// Sends bytes, or keeps them until there is room. After the child's end they are lost.
  package func write(_ bytes: [UInt8]) {
    guard inputIsOpen && !closesInput else { return }
    if sent * 2 > outgoing.count {
      outgoing.removeFirst(sent)
      sent = 0
    }
    outgoing += bytes
    if !waitsForRoom { flush() }
  }

  /// Closes the child's standard input, once all before is sent.
  package func closeInput() {
    closesInput = true
    if outgoing.isEmpty { cutInput() }
  }

  /// Sends a signal to the child and all of its own children. Does nothing after its end.
  package func signal(_ number: Int32) {
    if !hasEnded { _ = kill(-id, number) }
  }

  private func flush() {
    while sent < outgoing.count {
      switch sendToChild(input, outgoing[sent...]) {
      case .success(let count): sent += count
      case .failure(let error) where error.code == EAGAIN: return waitForRoom(true)
      case .failure: return cutInput()  // nobody reads it any more; the end is near
      }
    }
    outgoing.removeAll(keepingCapacity: outgoing.count < 65_536)
    sent = 0
    waitForRoom(false)
    if closesInput { cutInput() }
  }

  private func waitForRoom(_ wait: Bool) {
    if wait == waitsForRoom { return }
    waitsForRoom = wait
    if wait { inputHasRoom.resume() } else { inputHasRoom.suspend() }
  }

  private func cutInput() {
    if !inputIsOpen { return }
    inputIsOpen = false
    outgoing = []
    sent = 0
    waitForRoom(true)  // a source that is not active can't be cancelled to its end
    inputHasRoom.cancel()
  }

  private func takeOutput(_ bytes: ArraySlice<UInt8>) {
    var rest = bytes
    while let lineFeed = rest.firstIndex(of: UInt8(ascii: "\n")) {
      let end = rest[..<lineFeed]
      rest = rest[(lineFeed + 1)...]
      if unfinishedLine.isEmpty {
        listener.line(end)
      } else {
        let line = unfinishedLine + end
        unfinishedLine = []
        listener.line(line[...])
      }
    }
    unfinishedLine += rest
  }

  // The streams may stay open in a child's child: what is there by now is all that counts.
  private func finish() {
    hasEnded = true
    let status = reap(id)
    cutInput()
    output?.finish()
    errorOutput?.finish()
    listener.end(status)
  }
}

/// What comes out of a descriptor, which it owns, handed on as it comes. It waits on its queue and
/// not on a thread.
private final class Inflow {
  private let stream: Int32
  private let source: DispatchSourceRead
  private let take: (ArraySlice<UInt8>) -> Void
  private var buffer = [UInt8](repeating: 0, count: 65_536)

  init(_ stream: Int32, _ queue: DispatchQueue, _ take: @escaping (ArraySlice<UInt8>) -> Void) {
    self.stream = stream
    self.take = take
    source = DispatchSource.makeReadSource(fileDescriptor: stream, queue: queue)
    source.setEventHandler { [unowned self] in _ = takeSome() }
    source.setCancelHandler { _ = close(stream) }
    source.resume()
  }

  /// Takes what is there at once, and ends.
  func finish() {
    while takeSome() {}
    source.cancel()
  }

  private func takeSome() -> Bool {
    if source.isCancelled { return false }
    let count = read(stream, &buffer, buffer.count)
    if count > 0 { take(buffer[..<count]) }
    if count > 0 || (count < 0 && errno == EINTR) { return true }
    if count == 0 || errno != EAGAIN { source.cancel() }
    return false
  }
}
