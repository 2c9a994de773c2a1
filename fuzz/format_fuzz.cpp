// Size of the buffer, flags, width, precision, letter and value, text before and text behind, each
// on a line. A negative precision is none.

#include "fuzz/fuzz.h"

namespace installer {

// Without the attribute that has the compiler read the format.
using Print = int (*)(char *buffer, std::size_t bfsz, const char *format, ...);
static const Print bounded = snprintf, terminated = lprintf, platform = std::snprintf;

template <class T> static void check_format(const Texts &in, T value) {
  const std::size_t room = static_cast<std::size_t>(s_atoi(in[0].c_str())) % 2000;
  const int width = s_atoi(in[2].c_str()) % 500, precision = s_atoi(in[3].c_str()) % 500;
  const std::string flags = in[1].substr(0, in[1].find_first_not_of("-+ 0#"));
  const std::string start = in[5] + "%%%" + flags, end = in[4].substr(0, 1) + "%s" + in[6];
  const std::string stars = start + "*.*" + end;
  const std::string digits = start + (width != 0 ? std::to_string(width) : "") +
                             (precision < 0 ? "" : "." + std::to_string(precision)) + end;
  const char *tail = in[2].c_str();
  std::string full(0x8000, '~');
  const int length =
      platform(full.data(), full.size(), stars.c_str(), width, precision, value, tail);
  full.resize(static_cast<std::size_t>(length));
  const std::size_t kept = std::min(full.size(), std::max<std::size_t>(room, 1) - 1);
  // An ordinary character takes the last place, which a conversion leaves to the terminator.
  const bool overrun = room == 0 || (in[6].empty() ? in[5].size() + 1 : full.size()) >= room;
  std::string buffer(room + 1, '~');
  const auto check_result = [&](int count, bool cut) {
    check(count == (cut ? -1 : static_cast<int>(kept)) && buffer.back() == '~');
    check(buffer.compare(0, kept, full, 0, kept) == 0 && (cut || buffer[kept] == '\0'));
  };
  check_result(bounded(buffer.data(), room, stars.c_str(), width, precision, value, tail), overrun);
  check_result(bounded(buffer.data(), room, digits.c_str(), value, tail), overrun);
  if (room > 0) check_result(terminated(buffer.data(), room, digits.c_str(), value, tail), false);
}

void fuzz(const std::string &input, Ini /*ini*/) {
  std::string plain = input.substr(0, 0x2000);
  std::erase(plain, '%');
  const Texts in = split(plain, "\n", 7);
  const std::string letter = in[4].substr(0, 1), value = in[4].substr(letter.size());
  if (letter.find_first_of("diouxXc") == 0) check_format(in, s_atoi(value.c_str()));
  if (letter.find_first_of("eEfgG") == 0) check_format(in, std::atof(value.c_str()));
  if (letter == "p") check_format<const void *>(in, in.data());
  if (letter == "s") check_format(in, value.c_str());
}

} // namespace installer
