import Foundation

/// A child process and its three streams. Its functions may be called from any thread; its state
/// belongs to its queue. Only the wait for the child's end takes a thread.
///
/// Foundation's `Process` gives neither a session of the child's own nor pipes that are safe to
/// write to when the child has ended, so this starts the child itself.
package final class AgentProcess: @unchecked Sendable {
  package enum Event: Sendable {
    /// A line without its newline.
    case line(ArraySlice<UInt8>)
    /// Whatever arrives on standard error.
    case errorOutput([UInt8])
    /// The time of ``wake(after:)`` has come. All that the child had written by this uptime was told
    /// before.
    case woken(Double)
    /// The last event, after all that the child wrote; nil when something else took the status.
    case ended(AgentStatus?)
  }

  package let id: pid_t
  /// What the child writes and how it ends, for one iteration.
  package let events: AsyncStream<Event>
  private let listener: AsyncStream<Event>.Continuation
  private let queue = DispatchQueue(label: "card reader agent")
  private let timer: any DispatchSourceTimer
  private let input: Int32
  private var inputIsOpen = true
  private var closesInput = false
  private var outgoing: [UInt8] = []
  private var output: Inflow?
  private var errorOutput: Inflow?
  private var unfinishedLine: [UInt8] = []
  private var isOver = false

  /// Starts the program; throws `agentStart` when it can't be started.
  package init(path: String, arguments: [String] = [], environment: [String: String]) throws {
    var streams: [ChildStream] = []
    do {
      for _ in 0...2 { streams.append(try ChildStream()) }
      id = try spawn(
        path, arguments, environment: environment, input: streams[0].theirs,
        output: streams[1].theirs, error: streams[2].theirs)
    } catch {
      for stream in streams { _ = (close(stream.ours), close(stream.theirs)) }
      throw CardReaderError.cannotStart(path, (error as? SystemError)?.code ?? 0)
    }
    for stream in streams { _ = close(stream.theirs) }
    (events, listener) = AsyncStream.makeStream(of: Event.self)
    timer = DispatchSource.makeTimerSource(queue: queue)
    input = streams[0].ours
    queue.sync {
      output = Inflow(streams[1].ours, queue) { [unowned self] in take($0) }
      errorOutput = Inflow(streams[2].ours, queue) { [listener] in
        listener.yield(.errorOutput(Array($0)))
      }
    }
    timer.setEventHandler { [unowned self] in
      let time = uptime()
      readAll()
      listener.yield(.woken(time))
    }
    timer.resume()
    DispatchQueue(label: "card reader agent's end").async { [self] in
      awaitEnd(of: id)
      queue.async { [self] in  // both keep this object until then
        let status = reap(id)
        readAll()
        listener.yield(.ended(status))
        cutAll()
      }
    }
  }

  /// Sends bytes, or keeps them until there is room. After the child's end they are lost.
  package func write(_ bytes: [UInt8]) {
    queue.async { [self] in
      guard inputIsOpen && !closesInput else { return }
      let isFirst = outgoing.isEmpty
      outgoing += bytes
      if isFirst { flush() }
    }
  }

  /// Closes the child's standard input, once all before is sent.
  package func closeInput() {
    queue.async { [self] in
      closesInput = true
      if outgoing.isEmpty { cutInput() }
    }
  }

  /// Sends a signal to the child and all of its own children. Does nothing after its end.
  package func signal(_ number: Int32) {
    queue.async { [self] in
      if !isOver { _ = kill(-id, number) }
    }
  }

  /// Sets the time of the next event `woken`, in place of the one set before.
  package func wake(after seconds: Double) {
    queue.async { [self] in timer.schedule(deadline: .now() + min(seconds, 86_400)) }
  }

  /// Closes the streams and ends the events, whether or not the child has ended.
  package func abandon() {
    queue.async { [self] in cutAll() }
  }

  private func readAll() {
    output?.takeAll()
    errorOutput?.takeAll()
  }

  // The streams may stay open in a child's child, whose output no longer counts.
  private func cutAll() {
    dispatchPrecondition(condition: .onQueue(queue))
    if isOver { return }
    isOver = true
    cutInput()
    output?.cut()
    errorOutput?.cut()
    timer.cancel()
    listener.finish()
  }

  private func flush() {
    dispatchPrecondition(condition: .onQueue(queue))
    while inputIsOpen && !outgoing.isEmpty {
      let count = outgoing.withUnsafeBytes { send(input, $0.baseAddress, $0.count, sendFlags) }
      if count >= 0 {
        outgoing.removeFirst(count)
      } else if errno == EAGAIN {  // full: a thousand commands wait
        return queue.asyncAfter(deadline: .now() + 0.01) { self.flush() }
      } else if errno != EINTR {
        return cutInput()  // nobody reads it any more; the end is near
      }
    }
    if closesInput { cutInput() }
  }

  private func cutInput() {
    dispatchPrecondition(condition: .onQueue(queue))
    if !inputIsOpen { return }
    inputIsOpen = false
    outgoing = []
    _ = close(input)
  }

  private func take(_ bytes: ArraySlice<UInt8>) {
    dispatchPrecondition(condition: .onQueue(queue))
    var rest = bytes
    while let newline = rest.firstIndex(of: UInt8(ascii: "\n")) {
      listener.yield(.line((unfinishedLine + rest[..<newline])[...]))
      unfinishedLine = []
      rest = rest[(newline + 1)...]
    }
    unfinishedLine += rest
  }
}

/// What comes out of a descriptor, which it owns, handed on as it comes. It waits on its queue and
/// not on a thread.
private final class Inflow {
  private let stream: Int32
  private let source: any DispatchSourceRead
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

  /// Takes what is there: no more than a stream can hold, for another process may go on writing.
  func takeAll() { for _ in 0..<64 where !takeSome() { break } }

  func cut() { source.cancel() }

  private func takeSome() -> Bool {
    if source.isCancelled { return false }
    let count = read(stream, &buffer, buffer.count)
    if count > 0 { take(buffer[..<count]) }
    if count > 0 || (count < 0 && errno == EINTR) { return true }
    if count == 0 || errno != EAGAIN { source.cancel() }
    return false
  }
}
