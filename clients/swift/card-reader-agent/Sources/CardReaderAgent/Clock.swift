import Dispatch

/// The time in seconds that passes while this program runs. If a wake-up is overdue, the program was
/// suspended, perhaps with its agent, and the time since the wake-up was set does not count.
struct Clock {
  /// When the next wake-up is due.
  private(set) var wakesAt = Double.infinity
  private var setAt = 0.0
  private var lost = 0.0

  var now: Double { mutating get { time(at: uptime()) } }

  /// The time at an uptime.
  mutating func time(at uptime: Double) -> Double {
    let time = uptime - lost
    if time <= wakesAt + 0.25 { return time }
    lost += time - setAt
    return setAt
  }

  /// Notes the next wake-up, and returns the seconds until then.
  mutating func schedule(_ time: Double) -> Double {
    let now = now
    (setAt, wakesAt) = (now, max(now, time))
    return wakesAt - now
  }
}

/// The seconds since the machine has started, less its sleep.
func uptime() -> Double { Double(DispatchTime.now().uptimeNanoseconds) / 1e9 }
