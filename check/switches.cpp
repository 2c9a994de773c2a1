#include "check/switches.h"

#include "check/rules.h"
#include "check/words.h"

#include <cstring>

namespace installer::check {

namespace {

constexpr std::size_t LongestComment = 1000;
constexpr const char *Opener = "check:";

/// The comments of one file, met from its first line to its last.
class Switches {
public:
  Switches(Product &product, Report &report, const std::string &file)
      : product_(product), report_(report), file_(file) {}

  void read(char *line, std::size_t number) {
    if (*line == '\0') return;
    if (*line != '#') return apply(number);
    char *words = s_strtrm(line + 1);
    if (std::strncmp(words, Opener, std::strlen(Opener)) != 0) return;
    words = s_strtrm(words + std::strlen(Opener));
    read_rules(words, number);
  }

private:
  void read_rules(char *words, std::size_t number) {
    const char *verb = next_word(&words);
    if (verb == nullptr || std::strcmp(verb, "off") != 0)
      return fault(number, "'# check: off RULE...' is meant");
    std::vector<std::string> names;
    while (const char *word = next_word(&words)) names.emplace_back(word);
    const bool whole = !names.empty() && names.back() == "file";
    if (whole) names.pop_back();
    if (names.empty()) fault(number, "no rule is named");
    for (const std::string &name : names) {
      if (find_rule(name) == nullptr) fault(number, "unknown rule " + quoted(name) + hint(name));
      else if (whole) switch_off_file(name);
      else waiting_.push_back(name);
    }
  }

  static std::string hint(const std::string &name) {
    Nearest near;
    for (const Rule *rule : all_rules()) near.add(rule->name);
    return near.hint(name);
  }

  void switch_off_file(const std::string &name) {
    report_.switch_off(file_, 0, name);
    if (&file_ != &product_.copy_file) return;
    for (const Template &text : product_.templates) report_.switch_off(text.file, 0, name);
  }

  void apply(std::size_t number) {
    for (const std::string &name : waiting_) report_.switch_off(file_, number, name);
    waiting_.clear();
  }

  void fault(std::size_t number, const std::string &text) {
    product_.bad_switches.push_back(
        {Severity::Error, FaultKind::UnknownKeyword, file_, number, text, {}});
  }

  Product &product_;
  Report &report_;
  const std::string &file_;
  std::vector<std::string> waiting_;
};

void read_comments(const std::string &file, Switches switches) {
  const Stream in{s_fopen(file.c_str(), "r")};
  char piece[LongestComment];
  bool starts = true;
  std::size_t number = 1;
  while (const std::size_t size = in ? read_piece(in.get(), piece, sizeof piece) : 0) {
    const bool ends = piece[size - 1] == '\n';
    if (starts) switches.read(s_strtrm(piece), number);
    starts = ends;
    if (ends) ++number;
  }
}

} // namespace

void read_switches(Product &product, Report &report) {
  for (const std::string *file :
       {&product.data_file, &product.init_file, &product.quest_file, &product.copy_file})
    read_comments(*file, {product, report, *file});
}

} // namespace installer::check
