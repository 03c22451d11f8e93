// sstringhelper.cpp: message templates with numbered placeholders.
#include <quenlib/sstringhelper.h>

#include <string>

namespace QuenLibA500 {

SAnsiString SStringHelper::formatMessage(char const* messageTemplate, SAnsiString const* args,
                                         int count) {
  if (messageTemplate == nullptr) return SAnsiString();
  std::string out;
  for (char const* p = messageTemplate; *p != '\0'; ++p) {
    if (p[0] != '%') {
      out.push_back(*p);
      continue;
    }
    if (p[1] == '%') {
      out.push_back('%');
      ++p;
      continue;
    }
    int const number = p[1] >= '1' && p[1] <= '9' ? p[1] - '0' : 0;
    if (number == 0 || number > count) {
      out.push_back('%');  // not ours to fill: keep it as written
      continue;
    }
    out.append(args[number - 1].getString(), args[number - 1].getLength());
    ++p;
  }
  return SAnsiString(out.c_str(), static_cast<unsigned>(out.size()));
}

}  // namespace QuenLibA500
