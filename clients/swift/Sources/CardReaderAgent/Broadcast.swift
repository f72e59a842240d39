import Foundation

/// Tells each of any number of listeners all that happens from when it began to listen.
final class Broadcast<Element: Sendable>: @unchecked Sendable {
  private let lock = NSLock()
  private var listeners: [Int: AsyncStream<Element>.Continuation] = [:]
  private var nextListener = 0
  private var isOver = false

  /// A listener's own stream, which is finished at once when all is over.
  func stream() -> AsyncStream<Element> {
    let (stream, listener) = AsyncStream.makeStream(of: Element.self)
    lock.lock()
    defer { lock.unlock() }
    if isOver {
      listener.finish()
      return stream
    }
    let number = nextListener
    nextListener += 1
    listeners[number] = listener
    listener.onTermination = { [weak self] _ in self?.remove(number) }
    return stream
  }

  func tell(_ element: Element) {
    for listener in current() { listener.yield(element) }
  }

  func finish() {
    lock.lock()
    isOver = true
    lock.unlock()
    for listener in current() { listener.finish() }
  }

  // Outside of the lock: what a listener does when it ends takes the lock.
  private func current() -> [AsyncStream<Element>.Continuation] {
    lock.lock()
    defer { lock.unlock() }
    return Array(listeners.values)
  }

  private func remove(_ number: Int) {
    lock.lock()
    defer { lock.unlock() }
    listeners[number] = nil
  }
}
