#ifndef TAMSELCTL_SHARED_TIMES_H_
#define TAMSELCTL_SHARED_TIMES_H_

#include <cstdint>
#include <optional>
#include <string>

namespace tmsc::ctl {

/// Milliseconds since 1970 UTC now.
std::int64_t NowMs();

/// A moment, in ms since 1970 UTC, as "2026-07-25 14:03:22" in local time; "never" for 0.
std::string TimeText(std::int64_t moment_ms);
/// The same for programs, "2026-07-25T12:03:22.123Z"; empty for 0.
std::string IsoTime(std::int64_t moment_ms);
/// The zone of local time at a moment, "CEST (UTC+0200)".
std::string ZoneText(std::int64_t moment_ms);

/// A moment of the last days, "Sat 14:03" in local time.
std::string DayTimeText(std::int64_t moment_ms);
/// A length of time, in ms, in its largest one or two units: "350 ms", "12 s", "3 min 20 s",
/// "5 h 12 min", "4 d 3 h".
std::string DurationText(std::int64_t duration_ms);

/// A length of time, in ms, written as a number with ms, s, min (or m), h or d behind it, "500ms",
/// "5s", "2h"; a bare number is in seconds, also with decimals. Nothing when `text` is anything
/// else.
std::optional<std::int64_t> ParseDuration(const std::string& text);

/// A moment, in ms since 1970 UTC, written as "2026-07-25 14:03[:22[.123]]" or "2026-07-25", local
/// time, with T allowed for the blank and Z behind for UTC; or a length of time, which is that long
/// before `now_ms`. Nothing when `text` is anything else.
std::optional<std::int64_t> ParseMoment(const std::string& text, std::int64_t now_ms);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_TIMES_H_
