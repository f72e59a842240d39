// A door list: whose card is on it gets a green light and one beep, others two beeps.

import CardReaderAgent
import Foundation

let doorList = ["3AB1234": "Ada", "CDAB1234": "Grace"]

func say(_ text: String) {
  print(text)
  fflush(nil)  // a pipe would keep it
}

var options = CardReader.Options()
options.onConnect = { try await $0.setLed(.red) }
try await withCardReader(path: CommandLine.arguments[1], options: options) { reader in
  for try await event in await reader.events() {
    do {
      switch event {
      case .state(let state, _, let reason): say("\(state) \(reason ?? "")")
      case .card(let id):
        let name = doorList[id]
        say(name.map { "\($0), come in" } ?? "\(id): not listed")
        try await reader.setLed(name == nil ? .red : .green)
        try await reader.beep(name == nil ? 2 : 1)
      case .cardRemoved: try await reader.setLed(.red)
      default: break
      }
    } catch {
      FileHandle.standardError.write(Data("\(error)\n".utf8))  // the next state tells more
    }
  }
}
