#if canImport(Observation)
  import Observation

  /// The state of a reader for SwiftUI, whose views follow its properties:
  ///
  /// ```swift
  /// @State private var model = CardReaderModel()
  /// // ...
  /// Text(model.card ?? "Hold up a card").task { try? await model.follow(reader) }
  /// ```
  @available(macOS 14, iOS 17, tvOS 17, watchOS 10, *)
  @MainActor @Observable public final class CardReaderModel {
    /// The state of the reader.
    public private(set) var state = CardReader.State.starting
    /// The reason told with it.
    public private(set) var reason: String?
    /// The ID of the card that is held up.
    public private(set) var card: String?

    /// A model that follows no reader yet.
    public init() {}

    /// Follows a reader until it is closed or the task is cancelled. Throws what led to the state
    /// `failed`.
    public func follow(_ reader: some CardReaderProtocol) async throws {
      for try await event in await reader.events() {
        switch event {
        case .state(let state, _, let reason): (self.state, self.reason) = (state, reason)
        case .card(let id): card = id
        case .cardRemoved: card = nil
        case .poll, .log: break
        }
      }
    }
  }
#endif
