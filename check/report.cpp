#include "check/report.h"

#include "check/rules.h"

#include <algorithm>
#include <cstdio>

namespace installer::check {

namespace {

struct Look {
  const char *word;
  const char *colour;
};
constexpr Look error_look = {"error", "\033[1;31m"};
constexpr Look warning_look = {"warning", "\033[1;35m"};

auto place_of(const Finding &finding) {
  return std::tie(finding.file, finding.line, finding.order, finding.text);
}

} // namespace

void Report::switch_off(const std::string &file, std::size_t line, std::string_view rule) {
  off_.emplace(file, line, rule);
}

bool Report::is_off(const Finding &finding) const {
  if (off_.empty()) return false;
  const auto off = [&](std::size_t line) {
    return off_.contains({finding.file, line, finding.rule->name});
  };
  return off(0) || (finding.line != 0 && off(finding.line));
}

/// Drops the findings that follow from another one in their line: the first in the table of those
/// that explain a line.
void Report::drop_consequences() {
  std::map<std::tuple<std::string, std::size_t>, std::size_t> causes;
  for (const Finding &finding : findings_) {
    if (finding.rule->line != Line::Alone) continue;
    const auto [cause, fresh] = causes.try_emplace({finding.file, finding.line}, finding.order);
    if (!fresh) cause->second = std::min(cause->second, finding.order);
  }
  std::erase_if(findings_, [&](const Finding &finding) {
    const auto cause = causes.find({finding.file, finding.line});
    return cause != causes.end() && cause->second != finding.order;
  });
}

void Report::finish() {
  std::erase_if(findings_, [this](const Finding &finding) { return is_off(finding); });
  drop_consequences();
  std::sort(findings_.begin(), findings_.end(),
            [](const Finding &a, const Finding &b) { return place_of(a) < place_of(b); });
  const auto same = [](const Finding &a, const Finding &b) { return place_of(a) == place_of(b); };
  findings_.erase(std::unique(findings_.begin(), findings_.end(), same), findings_.end());
}

std::size_t Report::count(Level level) const {
  return static_cast<std::size_t>(
      std::count_if(findings_.begin(), findings_.end(),
                    [level](const Finding &finding) { return finding.rule->level == level; }));
}

bool Report::print(bool colour) const {
  for (const Finding &finding : findings_) {
    const Look &look = finding.rule->level == Level::Error ? error_look : warning_look;
    std::printf("%s:%zu: %s%s:%s %s [%s]\n", escape_controls(finding.file).c_str(), finding.line,
                colour ? look.colour : "", look.word, colour ? "\033[0m" : "",
                escape_controls(finding.text).c_str(), finding.rule->name);
  }
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

} // namespace installer::check
