/// A line from the agent. What does not fit the protocol is the text of a log.
enum AgentLine: Equatable {
  /// `Ok:`, with what follows the space.
  case ok(String)
  /// `Error:`, with what follows the space.
  case error(String)
  /// A reader was connected: its name, and the number in it.
  case reader([UInt8], number: UInt64)
  /// The reader was disconnected.
  case noReader
  case card(String)
  case log(String)

  init(_ bytes: ArraySlice<UInt8>) {
    func text(after count: Int) -> String {
      String(decoding: bytes.dropFirst(count), as: UTF8.self)
    }
    func begins(_ prefix: String) -> Bool { bytes.starts(with: prefix.utf8) }

    if bytes.elementsEqual("Ok:".utf8) || (begins("Ok: ") && bytes.count > 4) {
      self = .ok(text(after: 4))
    } else if bytes.elementsEqual("Error:".utf8) || (begins("Error: ") && bytes.count > 7) {
      self = .error(text(after: 7))
    } else if bytes.elementsEqual("Reader: Global".utf8) {
      self = .noReader
    } else if begins("Reader: "), let number = connectionNumber(bytes.dropFirst(8)) {
      self = .reader(Array(bytes.dropFirst(8)), number: number)
    } else if begins("Card: "), isCard(bytes.dropFirst(6)) {
      self = .card(text(after: 6))
    } else {
      self = .log(text(after: begins("Log: ") ? 5 : 0))
    }
  }
}

private func isDigit(_ byte: UInt8) -> Bool { (0x30...0x39).contains(byte) }

private func isCard(_ bytes: ArraySlice<UInt8>) -> Bool {
  (1...64).contains(bytes.count) && bytes.allSatisfy { isDigit($0) || (0x41...0x46).contains($0) }
}

/// The number in a reader's name: "Dev", 1 to 15 digits, and perhaps a dash and a part number without
/// white space. Nil for what is no name.
func connectionNumber(_ name: ArraySlice<UInt8>) -> UInt64? {
  guard name.starts(with: "Dev".utf8) else { return nil }
  let digits = name.dropFirst(3).prefix(while: isDigit)
  let rest = name[digits.endIndex...]
  guard digits.count <= 15, rest.isEmpty || (rest.first == UInt8(ascii: "-") && rest.count > 1),
    !rest.contains(where: { isWhiteSpace($0) || $0 == 0 })
  else { return nil }
  return UInt64(String(decoding: digits, as: UTF8.self))
}

/// The error that an answer with this text behind `Error:` tells of.
func failure(_ message: String) -> CardReaderError {
  if message.hasPrefix("Action was for reader ") {
    return message.hasSuffix(noReaderSuffix) ? .noReader : .readerChanged(message)
  }
  let actions = ["Beeping", "Setting LED state", "Clearing LED state", "Resetting card reader"]
  for action in actions where message.hasPrefix("\(action) failed with error ") {
    guard let number = Int(message.dropFirst("\(action) failed with error ".count)) else { break }
    return .readerFailed(number: number, message: message)
  }
  let isOfConfiguration =
    ["Failed to read reader config", "Failed to write reader config"].contains(message)
    || (message.hasPrefix("Call to ") && message.hasSuffix(" failed; settings will not be set"))
  return isOfConfiguration ? .readerFailed(number: nil, message: message) : .rejected(message)
}

let noReaderSuffix = ", but there is no reader attached"
