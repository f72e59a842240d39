// A door list: whose card is on it gets a green light and one beep, others a red one and two.
//   swift run --package-path hosts/swift door-list [AGENT]

import CardReaderAgent
import Foundation

let root = URL(fileURLWithPath: #filePath).pathComponents.dropLast(5).joined(separator: "/")
let path = CommandLine.arguments.dropFirst().first ?? "\(root)/build/CardReaderAgent.app"
let doorList = ["3AB1234": "Ada", "CDAB1234": "Grace"]

func say(_ text: String) {
  print(text)
  fflush(nil)  // a pipe would keep it
}

let reader = CardReader(path: path)
let events = reader.events
await reader.start()
var attached = ""
for await event in events {
  switch event {
  case .state(.ready, _, _):
    attached = await reader.name ?? ""
    say("Reader \(attached) is ready")
  case .state(_, previous: .ready, _): say("Reader \(attached) has gone")
  case .card(let id):
    let name = doorList[id]
    say(name.map { "\($0), come in" } ?? "Card \(id) is not on the list")
    do {
      try await reader.setLed(name == nil ? .red : .green)
      try await reader.beep(name == nil ? 2 : 1)
    } catch {
      FileHandle.standardError.write(Data("\(error)\n".utf8))
    }
  default: break
  }
}
