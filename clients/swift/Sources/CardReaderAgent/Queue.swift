/// First in, first out, at the same cost however many there are.
struct Queue<Element> {
  private var elements: [Element?] = []
  private var head = 0

  var first: Element? { isEmpty ? nil : elements[head] }
  var isEmpty: Bool { head == elements.count }

  mutating func append(_ element: Element) { elements.append(element) }

  mutating func removeFirst() -> Element? {
    if isEmpty { return nil }
    defer {
      elements[head] = nil
      head += 1
      if head * 2 > elements.count {
        elements.removeFirst(head)
        head = 0
      }
    }
    return elements[head]
  }
}
