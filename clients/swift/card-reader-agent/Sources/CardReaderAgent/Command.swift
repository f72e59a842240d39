/// How long a beep is: one to five short ones are possible, or one or two long ones.
public enum BeepLength: String, Sendable {
  /// A short beep.
  case short
  /// A long beep.
  case long
}

/// What the LED can show.
public enum LedColor: String, Sendable {
  /// Red.
  case red
  /// Green.
  case green
  /// Red and green together.
  case amber
  /// Dark.
  case off
}

/// The settings of a reader to change: the type, then the name, to a value, for instance
/// `["tsCfgFlags": ["bHaltKBSnd": true], "tsTimeParms": ["iIDHoldTO": 20]]`.
public typealias ReaderSettings = [String: [String: SettingValue]]

/// A number or a truth value, written as either. The reader gets the low 16 bits.
public struct SettingValue: Hashable, Sendable, ExpressibleByIntegerLiteral,
  ExpressibleByBooleanLiteral
{
  /// The number; 1 for true and 0 for false.
  public let number: Int32

  /// A value that is computed.
  public init(_ number: Int32) { self.number = number }
  /// A truth value that is computed.
  public init(_ value: Bool) { number = value ? 1 : 0 }
  /// The number as written.
  public init(integerLiteral number: Int32) { self.number = number }
  /// The truth value as written.
  public init(booleanLiteral value: Bool) { self.init(value) }
}

/// A command to the agent or its reader.
public enum ReaderCommand: Hashable, Sendable {
  /// Returns the text, less white space at its end. Needs no reader.
  case ping(String)
  /// Sounds the beeper.
  case beep(Int, BeepLength)
  /// Takes the LED under the agent's control and sets its color.
  case setLed(LedColor)
  /// Gives control of the LED back to the reader.
  case clearLed
  /// Changes the reader's configuration.
  case configure(ReaderSettings)
  /// Resets the reader to its factory settings.
  case resetConfig
}

extension ReaderCommand {
  /// The line that the agent reads, less its newline, for the attached reader. Throws
  /// `invalidArgument` for what would not arrive as it is, `noReader` when the command needs one,
  /// and `rejected` when no line can address the reader.
  func line(for reader: [UInt8]?) throws -> [UInt8] {
    var target = reader
    if case .ping = self { target = Array("Global".utf8) }
    let text = Array(try text().utf8)
    if text.contains(0) || text.contains(UInt8(ascii: "\n")) {
      throw CardReaderError.invalidArgument("invalid command: it contains a newline or a NUL byte")
    }
    let line = (target ?? []) + [UInt8(ascii: ":")] + text
    if line.count > 1023 {
      throw CardReaderError.invalidArgument(
        "invalid command: expected at most 1023 bytes, got \(line.count) bytes")
    }
    guard let target else { throw CardReaderError.noReader }
    if target.contains(UInt8(ascii: ":")) {
      throw CardReaderError.rejected(
        "cannot address a reader whose name contains a colon: \(String(decoding: target, as: UTF8.self))"
      )
    }
    return line
  }

  /// The settings that the command changes, in its order.
  var settings: [(type: String, name: String, number: Int32)] {
    guard case .configure(let settings) = self else { return [] }
    return settings.sorted { $0.key < $1.key }.flatMap { type, values in
      values.sorted { $0.key < $1.key }.map { (type, $0.key, $0.value.number) }
    }
  }

  private func text() throws -> String {
    switch self {
    case .ping(let text): return "Ping \(text)"
    case .beep(let count, let length): return "Beep \(length) \(count)"
    case .setLed(let color): return "SetLED \(color)"
    case .clearLed: return "ClearLED"
    case .resetConfig: return "ResetConfig"
    case .configure:
      return try settings.reduce("ReaderConfig") { text, setting in
        let (type, name, number) = setting
        guard isWord(type), isWord(name) else {
          throw CardReaderError.invalidArgument("invalid setting name '\(type).\(name)'")
        }
        return "\(text) \(type).\(name)=\(number)"
      }
    }
  }
}

// Whether the agent takes the text for one part of a setting's name.
private func isWord(_ text: String) -> Bool {
  !text.isEmpty && !text.utf8.contains { isWhiteSpace($0) || ".=".utf8.contains($0) }
}

/// White space as the agent has it.
func isWhiteSpace(_ byte: UInt8) -> Bool { byte == 0x20 || (0x09...0x0d).contains(byte) }
