/// The state of a reader and the streams of its events, for the reader and for the stub reader.
package struct EventStreams {
  package typealias Stream = AsyncThrowingStream<CardReader.Event, any Error>

  package private(set) var state = CardReader.State.starting
  package private(set) var reason: String?
  private var lastChange: CardReader.Event?
  private var error: (any Error)?  // that led to the state `failed`
  private var listeners: [Stream.Continuation] = []

  package init() {}

  package mutating func stream() -> Stream {
    let (stream, listener) = Stream.makeStream()
    if let lastChange { listener.yield(lastChange) }
    listeners.append(listener)
    endIfOver()
    return stream
  }

  /// Yields the event to all streams that somebody still reads.
  package mutating func send(_ event: CardReader.Event) {
    listeners.removeAll { listener in
      if case .terminated = listener.yield(event) { return true }
      return false
    }
  }

  /// Changes the state, unless it is this one already. `failed` needs an error. Returns whether it
  /// has changed.
  @discardableResult
  package mutating func change(
    _ new: CardReader.State, _ reason: String? = nil, error: (any Error)? = nil
  ) -> Bool {
    if new == state { return false }
    let event = CardReader.Event.state(new, previous: state, reason: reason)
    (state, self.reason, self.error, lastChange) = (new, reason, error, event)
    send(event)
    endIfOver()
    return true
  }

  private mutating func endIfOver() {
    guard state == .failed || state == .closed else { return }
    for listener in listeners { listener.finish(throwing: error) }
    listeners = []
  }
}
