// Fuzzes the time-zone rules text: every input must give a zone whose
// written rules read back to an equal zone, and whose daylight-saving test
// agrees with the offset it gives. The same bytes are
// also used as a Format pattern.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string text(reinterpret_cast<char const*>(data), size);
  text = text.c_str();  // the text ends at the first zero byte
  if (text.empty()) return 0;  // the empty text reads the system zone
  STimeZone zone{SAnsiString(text.c_str())};
  STimeZone back{zone.GetRules()};
  if (!(back == zone)) std::abort();

  static int64_t const kInstants[] = {0, 1710054000000, 1730613600000, -62135596800000,
                                      253402300799000, 951782400000};
  for (int64_t ms : kInstants) {
    SDateTime when = SDateTime::FromUnixMilliseconds(ms);
    bool dst = zone.InDST(when);
    if (dst && !zone.DSTEnabled()) std::abort();
    int32_t offset = zone.UTCOffsetMinutes(when);
    if (offset != (dst ? zone.DaylightOffset() : zone.StandardOffset())) std::abort();
    SDateTime local(2024, 3, 10, 2, 30, 0, 0, zone);
    (void)local.GetHour(zone);
    SAnsiString shown = when.Format(text.c_str(), zone);
    (void)shown;
  }
  return 0;
}
