import Dispatch

/// The time in seconds that passes while this program runs. If a wake-up is overdue, the program was
/// suspended, perhaps with its agent, and the time since the wake-up was set does not count.
struct Clock {
  /// When the next wake-up is due.
  private(set) var wakesAt = Double.infinity
  private var setAt = 0.0
  private var lost = 0.0

  var now: Double {
    mutating get {
      let now = Double(DispatchTime.now().uptimeNanoseconds) / 1e9 - lost
      if now <= wakesAt + 0.25 { return now }
      lost += now - setAt
      return setAt
    }
  }

  /// Notes the next wake-up, and returns the seconds until then.
  mutating func schedule(_ time: Double) -> Double {
    let now = now
    (setAt, wakesAt) = (now, max(now, time))
    return wakesAt - now
  }
}
