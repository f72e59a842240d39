// The words of the line protocol, to the agent and from it.

/// How long a beep is: one to five short ones are possible, or one or two long ones.
public enum BeepLength: String, Sendable {
  /// A short beep.
  case short
  /// A long beep.
  case long
}

/// What the LED can be told to show.
public enum LedColor: String, Sendable {
  /// Red.
  case red
  /// Green.
  case green
  /// Red and green at once.
  case amber
  /// Dark.
  case off
}

/// The settings of a reader to change: the type, then the name, to a value, for instance
/// `["tsCfgFlags": ["bHaltKBSnd": true], "tsTimeParms": ["iIDHoldTO": 20]]`.
public typealias ReaderSettings = [String: [String: SettingValue]]

/// A number or a truth value, written as either. The reader gets the low 16 bits.
public struct SettingValue: Equatable, Sendable, ExpressibleByIntegerLiteral,
  ExpressibleByBooleanLiteral
{
  /// The number; 1 for true and 0 for false.
  public let number: Int32

  /// A value that is not known before the program runs.
  public init(_ number: Int32) { self.number = number }
  /// A truth value that is not known before the program runs.
  public init(_ value: Bool) { number = value ? 1 : 0 }
  /// The number as written.
  public init(integerLiteral number: Int32) { self.number = number }
  /// The truth value as written.
  public init(booleanLiteral value: Bool) { self.init(value) }
}

/// The name that the agent has given to a reader; every connection gets a new one. It may hold
/// bytes that are no text, and goes back to the agent as it came.
public struct ReaderName: Hashable, Sendable, CustomStringConvertible {
  let bytes: [UInt8]

  /// The name as text, with a replacement character for what is none.
  public var description: String { String(decoding: bytes, as: UTF8.self) }
}

/// The most bytes of a command, its line feed aside.
private let lineLimit = 1023

/// A command as the agent reads it, less its line feed. Each maker throws `invalidArgument` for what
/// would not arrive as it is.
struct AgentCommand {
  let bytes: [UInt8]
  /// What the line asks to set, as `type.name`.
  private(set) var settings: [String] = []

  private init(_ bytes: [UInt8]) throws {
    if bytes.contains(0) || bytes.contains(UInt8(ascii: "\n")) {
      throw CardReaderError.invalidArgument(
        "a command must not hold a line feed or a zero byte")
    }
    if bytes.count > lineLimit {
      throw CardReaderError.invalidArgument(
        "a command of \(bytes.count) bytes, more than \(lineLimit)")
    }
    self.bytes = bytes
  }

  private init(_ reader: ReaderName, _ command: String) throws {
    if reader.bytes.contains(UInt8(ascii: ":")) {
      throw CardReaderError.rejected(
        "a reader whose name has a colon in it can't be addressed: \(reader)")
    }
    try self.init(reader.bytes + Array(":\(command)".utf8))
  }

  static func ping(_ text: String) throws -> AgentCommand {
    try AgentCommand(Array("Global:Ping \(text)".utf8))
  }

  static func beep(_ reader: ReaderName, _ count: Int, _ length: BeepLength) throws -> AgentCommand
  {
    try AgentCommand(reader, "Beep \(length) \(count)")
  }

  static func setLed(_ reader: ReaderName, _ color: LedColor) throws -> AgentCommand {
    try AgentCommand(reader, "SetLED \(color)")
  }

  static func clearLed(_ reader: ReaderName) throws -> AgentCommand {
    try AgentCommand(reader, "ClearLED")
  }

  static func resetConfig(_ reader: ReaderName) throws -> AgentCommand {
    try AgentCommand(reader, "ResetConfig")
  }

  static func readerConfig(_ reader: ReaderName, _ settings: ReaderSettings) throws -> AgentCommand
  {
    var command = "ReaderConfig"
    var names: [String] = []
    for (type, values) in settings.sorted(by: { $0.key < $1.key }) {
      for (name, value) in values.sorted(by: { $0.key < $1.key }) {
        if !isWord(type, without: ".") || !isWord(name, without: "=")
          || name.utf8.first == UInt8(ascii: ".")
        {
          throw CardReaderError.invalidArgument("no name of a setting: '\(type).\(name)'")
        }
        command += " \(type).\(name)=\(value.number)"
        names.append("\(type).\(name)")
      }
    }
    var line = try AgentCommand(reader, command)
    line.settings = names
    return line
  }
}

private func isWord(_ text: String, without separator: Unicode.Scalar) -> Bool {
  !text.isEmpty && !text.utf8.contains { isWhiteSpace($0) || $0 == UInt8(ascii: separator) }
}

private func isWhiteSpace(_ byte: UInt8) -> Bool { byte == 0x20 || (0x09...0x0d).contains(byte) }

/// A line from the agent. What does not fit the protocol is the text of a log.
enum AgentLine: Equatable {
  /// `Ok:`, with what follows the blank.
  case ok(String)
  /// `Error:`, with what follows the blank.
  case error(String)
  /// A reader was connected; nil: the reader has gone.
  case reader(ReaderName?)
  case card(String)
  case log(String)

  /// An answer as it came, or what the others tell.
  var text: String {
    switch self {
    case .ok(let text): return text.isEmpty ? "Ok:" : "Ok: \(text)"
    case .error(let text): return text.isEmpty ? "Error:" : "Error: \(text)"
    case .reader(let name): return name?.description ?? "Global"
    case .card(let text), .log(let text): return text
    }
  }

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
      self = .reader(nil)
    } else if begins("Reader: "), isReaderName(bytes.dropFirst(8)) {
      self = .reader(ReaderName(bytes: Array(bytes.dropFirst(8))))
    } else if begins("Card: "), isCard(bytes.dropFirst(6)) {
      self = .card(text(after: 6))
    } else {
      self = .log(text(after: begins("Log: ") ? 5 : 0))
    }
  }
}

private func isDigit(_ byte: UInt8) -> Bool { (0x30...0x39).contains(byte) }

private func isCard(_ bytes: ArraySlice<UInt8>) -> Bool {
  !bytes.isEmpty && bytes.allSatisfy { isDigit($0) || (0x41...0x46).contains($0) }
}

// "Dev" and a number, and perhaps a dash and a part number without white space.
private func isReaderName(_ bytes: ArraySlice<UInt8>) -> Bool {
  guard bytes.starts(with: "Dev".utf8) else { return false }
  let number = bytes.dropFirst(3).prefix(while: isDigit)
  let rest = bytes[number.endIndex...]
  return !number.isEmpty
    && (rest.isEmpty
      || (rest.first == UInt8(ascii: "-") && rest.count > 1
        && !rest.contains { isWhiteSpace($0) || $0 == 0 }))
}

/// What an answer that begins `Error:` says.
func failure(_ message: String) -> CardReaderError {
  if message.hasPrefix("Action was for reader ") {
    return message.hasSuffix(", but there is no reader attached") ? .noReader : .readerChanged
  }
  let actions = ["Beeping", "Setting LED state", "Clearing LED state", "Resetting card reader"]
  for action in actions where message.hasPrefix("\(action) failed with error ") {
    let number = message.dropFirst("\(action) failed with error ".count)
    return .readerFailed(number: Int(number), message: message)
  }
  let ofConfiguration =
    ["Failed to read reader config", "Failed to write reader config"].contains(message)
    || (message.hasPrefix("Call to ") && message.hasSuffix(" failed; settings will not be set"))
  return ofConfiguration ? .readerFailed(number: nil, message: message) : .rejected(message)
}
