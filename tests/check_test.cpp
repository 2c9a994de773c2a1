// installer-check, as the program that a packager calls.

#include "installer/copy.h"
#include "installer/init.h"
#include "installer/quest.h"
#include "installer/shared.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include <sys/stat.h>

namespace installer::test {

namespace {

const std::string tests = INSTALLER_SOURCE_DIR "/tests/";
const std::string demo = INSTALLER_SOURCE_DIR "/examples/demo";

/// What it printed, and its exit status.
struct Checked {
  std::string out, err;
  int status;
};

Checked check(const std::string &arguments) {
  const int status = std::system((INSTALLER_CHECK " " + arguments + " >out 2>err").c_str());
  return {read_file("out"), read_file("err"), WEXITSTATUS(status)};
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in{text};
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// The findings of each folder: "FILE:LINE RULE".
std::map<std::string, std::set<std::string>> findings_of(const std::string &out) {
  static const std::regex form{R"(([^/]+)/(.*:\d+): (error|warning): .* \[([a-z-]+)\])"};
  std::map<std::string, std::set<std::string>> found;
  for (const std::string &line : lines_of(out)) {
    std::smatch match;
    if (!std::regex_match(line, match, form)) ADD_FAILURE() << line;
    else if (!found[match[1]].insert(match.str(2) + " " + match.str(4)).second)
      ADD_FAILURE() << "twice: " << line;
  }
  return found;
}

// ---- Mistakes ----

std::string escaped(char c) {
  switch (c) {
  case 'n': return "\n";
  case 'r': return "\r";
  case 't': return "\t";
  case '0': return std::string(1, '\0');
  case 'b': return "\xef\xbb\xbf";
  case 'K': return std::string(980, 'x');
  default: return std::string(3000, 'x'); // 'L'
  }
}

std::string unescape(const std::string &text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i)
    result += text[i] == '\\' ? escaped(text[++i]) : text.substr(i, 1);
  return result;
}

/// What stands in a line of a file instead.
struct Change {
  std::string file, text;
  int line = 0;

  void make(const std::string &folder) const {
    const std::string path = folder + "/" + file;
    std::vector<std::string> lines = lines_of(read_file(path));
    lines.at(static_cast<std::size_t>(line - 1)) = text;
    std::string whole;
    for (const std::string &each : lines) whole += each + "\n";
    write_file(path, whole);
  }
};

/// A line of mistakes.txt, made in a copy of the product.
struct Mistake {
  std::string row, action;
  std::vector<Change> changes;
  std::set<std::string> expected;

  explicit Mistake(const std::string &written) : row(written) {
    static const std::regex bar{R"(\s*\|\s*)"};
    std::vector<std::string> cells{
        std::sregex_token_iterator{row.begin(), row.end(), bar, -1},
        {  }
    };
    for (const char *word : {"rm", "mv", "ln"})
      if (cells.back() == word) action = word, cells.pop_back();
    add_change(cells[0] + " " + (cells.size() > 1 ? cells[1] : ""));
    for (std::size_t i = 2; i < cells.size(); ++i)
      if (cells[i].starts_with("+ ")) add_change(cells[i].substr(2));
      else expect(cells[i]);
  }

  void make(const std::string &folder) const {
    fs::copy(tests + "mill", folder, fs::copy_options::recursive);
    const std::string path = folder + "/" + changes[0].file;
    if (action == "rm" || action == "ln") fs::remove(path);
    if (action == "mv") fs::rename(path, folder + "/" + changes[0].text);
    else if (action == "ln") fs::create_symlink(changes[0].text, path);
    else if (action != "rm")
      for (const Change &change : changes) change.make(folder);
  }

private:
  void add_change(const std::string &cell) {
    Change change;
    std::istringstream words{cell};
    words >> change.file >> change.line;
    std::getline(words >> std::ws, change.text);
    change.text = unescape(change.text);
    changes.push_back(change);
  }
  void expect(const std::string &cell) {
    std::istringstream words{cell};
    std::string rule, place;
    if (!(words >> rule)) return;
    if (!(words >> place)) place = changes[0].file + ":" + std::to_string(changes[0].line);
    expected.insert(place + " " + rule);
  }
};

// ---- Random changes ----

/// What the loaders log about the demo product in the working directory: nothing, something about
/// a line, or only that a section is missing, which no line shows.
enum class Complaint { None, Section, Line };
Complaint complaint_of_loaders() {
  Complaint complaint = Complaint::None;
  const Faults faults = [&](const Fault &fault) {
    const bool dropped = fault.kind == FaultKind::MissingWord;
    if (fault.severity != Severity::Error && !dropped) return;
    complaint = std::max(complaint, fault.line == 0 ? Complaint::Section : Complaint::Line);
  };
  const Store store{ini_init()};
  const std::unique_ptr<init_s, Release<init_free>> init{init_init()};
  static_cast<void>(load_datfile(store.get(), "noticeboard.dat", faults));
  static_cast<void>(init_load(init.get(), "noticeboard.int", faults));
  for (const char *section : {"install", "upgrade", "remove", "web"}) {
    const std::unique_ptr<questions, Release<quest_free>> quest{quest_init(store.get())};
    const std::unique_ptr<copy, Release<copy_free>> copy{copy_init(store.get())};
    static_cast<void>(quest_load(quest.get(), "noticeboard.q", section, faults));
    if (copy_load(copy.get(), "noticeboard.cpy", section, faults) == 0)
      complaint = std::max(complaint, Complaint::Section);
  }
  clear_datfile();
  return complaint;
}

/// The text with one word changed, and the number of its line.
std::pair<std::string, std::size_t> change_word(std::string text, std::mt19937 &random) {
  std::vector<std::pair<std::size_t, std::size_t>> words;
  for (std::size_t at = 0; (at = text.find_first_not_of(" \t\n", at)) != std::string::npos;) {
    const std::size_t end = std::min(text.find_first_of(" \t\n", at), text.size());
    const std::size_t start = text.rfind('\n', at) + 1;
    if (text[text.find_first_not_of(" \t", start)] != '#') words.emplace_back(at, end - at);
    at = end;
  }
  const auto [at, size] = words[random() % words.size()];
  const auto lines = 1 + std::count(text.begin(), text.begin() + static_cast<long>(at), '\n');
  const auto line = static_cast<std::size_t>(lines);
  const auto [other, length] = words[random() % words.size()];
  const std::string replacement = text.substr(other, length);
  switch (random() % 5) {
  case 0: text.erase(at, size); break;
  case 1: text.replace(at, size, replacement); break;
  case 2: text[at + random() % size] = 'x'; break;
  case 3: text.insert(at, text.substr(at, size) + " "); break;
  default: text.erase(at + random() % size, 1);
  }
  return {text, line};
}

} // namespace

TEST(Check, FindsEachMistakeInItsLineAndNothingElse) {
  const TempDir folder;
  std::vector<Mistake> mistakes;
  std::string names;
  for (const std::string &line : lines_of(read_file(tests + "mistakes.txt"))) {
    if (line.empty() || line.starts_with('#')) continue;
    const std::string name = "m" + std::to_string(mistakes.size());
    mistakes.emplace_back(line);
    mistakes.back().make(name);
    names += " " + name;
  }
  auto found = findings_of(check(names).out);
  for (std::size_t i = 0; i < mistakes.size(); ++i)
    EXPECT_EQ(found["m" + std::to_string(i)], mistakes[i].expected) << mistakes[i].row;
}

TEST(Check, IsSilentAboutSoundProducts) {
  const TempDir folder;
  for (const std::string &product : {demo, demo + "/../hello", tests + "mill"})
    EXPECT_EQ(check("-strict " + product).out, "");
  write_notes();
  for (const auto &[file, text] : read_page("installer-dat.5")) write_file(file, text);
  EXPECT_EQ(check("-strict").out, "");
}

TEST(Check, ReportsWhatTheLoadersReport) {
  const TempDir folder;
  std::mt19937 random{4711};
  const int changes = times(500);
  std::map<std::string, std::string> wanted; // the beginning of a finding, and the changed line
  std::string names;
  for (int i = 0; i < changes; ++i) {
    const std::string name = "m" + std::to_string(i) + "/";
    fs::create_directory(name);
    const std::array files = {"noticeboard.dat", "noticeboard.int", "noticeboard.q",
                              "noticeboard.cpy"};
    for (const char *file : files) fs::copy_file(demo + "/" + file, name + file);
    const std::string file = name + files[random() % files.size()];
    const auto [text, line] = change_word(read_file(file), random);
    write_file(file, text);
    fs::current_path(name);
    const Complaint complaint = complaint_of_loaders();
    fs::current_path("..");
    const std::string place = file + ":" + std::to_string(line) + ": error: ";
    if (complaint != Complaint::None)
      wanted[complaint == Complaint::Line ? place : name] = place + lines_of(text).at(line - 1);
    names += " " + name;
  }
  const std::string out = "\n" + check(names).out;
  EXPECT_GT(static_cast<int>(wanted.size()), changes / 10);
  for (const auto &[finding, change] : wanted)
    EXPECT_NE(out.find("\n" + finding), std::string::npos) << change;
  static_cast<void>(take_errors());
}

TEST(Check, PrintsInOrderAndCounts) {
  const TempDir folder;
  for (const char *name : {"a", "b"}) fs::copy(tests + "mill", name, fs::copy_options::recursive);
  write_file("a/mill.dat", "colour\u009b red\n# check: off unread-setting\ncolor red\n" +
                               read_file("a/mill.dat"));
  write_file("b/mill.cpy", read_file("b/mill.cpy") + "MkDr x\n");
  fs::create_directory_symlink("b", "linked");
  fs::copy("a", "\x1b\u202e", fs::copy_options::recursive);
  const std::string nothing_reads =
      "/mill.dat:1: warning: nothing reads 'colour\\302\\233' [unread-setting]\n";
  const std::string warning = "a" + nothing_reads;
  const std::string error =
      "b/mill.cpy:30: error: unknown command 'MkDr'; did you mean 'MkDir'? [unknown-keyword]\n";
  const std::string none =
      "installer-check: cannot read folder 'none', No such file or directory\n";
  const std::string empty = "installer-check: no product (NAME.dat) in 'a/files'\n";
  const std::string wrong = "installer-check: unknown option '-wrong'\n";
  const std::string usage = "Usage: installer-check [-strict] [-list] [FOLDER]...\n";
  const struct {
    const char *arguments;
    std::string out, err;
    int status;
  } rows[] = {
      {"b a",        warning + error,                        "1 error, 1 warning\n",           1},
      {"a/",         warning,                                "0 errors, 1 warning\n",          0},
      {"-strict a",  warning,                                "0 errors, 1 warning\n",          1},
      {"linked",     "linked" + error.substr(1),             "1 error, 0 warnings\n",          1},
      {"a none",     warning,                                none + "0 errors, 1 warning\n",   2},
      {"a/files",    "",                                     empty + "0 errors, 0 warnings\n", 2},
      {"-wrong",     "",                                     wrong + usage,                    2},
      {"\x1b\u202e", "\\033\\342\\200\\256" + nothing_reads, "0 errors, 1 warning\n",          0},
      {"\xc2\x9b/x", "",
       "installer-check: cannot read folder '\\302\\233/x', No such file or directory\n0 errors, 0 "
       "warnings\n",                                                                           2},
  };
  for (const auto &row : rows) {
    const Checked checked = check(row.arguments);
    EXPECT_EQ(checked.out, row.out) << row.arguments;
    EXPECT_EQ(checked.err, row.err) << row.arguments;
    EXPECT_EQ(checked.status, row.status) << row.arguments;
  }
  fs::current_path("a");
  EXPECT_EQ(check("").out, warning.substr(2));
  write_file("mill.dat", "# check: off unread-setting file\n" + read_file("mill.dat"));
  EXPECT_EQ(check("").out, "");
  EXPECT_EQ(check("../b >/dev/full; echo $?").out, "2\n");
}

TEST(Check, EveryRuleIsTriedAndInThePage) {
  const TempDir folder;
  const std::string mistakes = read_file(tests + "mistakes.txt");
  const std::string page = read_file(INSTALLER_SOURCE_DIR "/man/installer-check.1");
  const std::regex item{R"(\.It Ic (\S+) Pq (\S+)\n([^\n]*))"};
  std::set<std::string> shown, listed;
  for (std::sregex_iterator it{page.begin(), page.end(), item}, end; it != end; ++it)
    shown.insert(it->str(1) + " " + it->str(2) + " " + it->str(3));
  for (const std::string &line : lines_of(check("-list").out)) {
    listed.insert(std::regex_replace(line, std::regex{" +"}, " "));
    const std::string rule = line.substr(0, line.find(' '));
    EXPECT_NE(mistakes.find("| " + rule), std::string::npos) << rule;
  }
  EXPECT_EQ(shown, listed);
}

TEST(Check, SurvivesFilesOfAnyKindAndSize) {
  const TempDir folder;
  const auto fresh = [](const char *file) {
    fs::remove_all("p");
    fs::copy(tests + "mill", "p", fs::copy_options::recursive);
    return std::string{"p/mill."} + file;
  };
  const auto repeat = [](std::string text) {
    std::string whole;
    for (int i = 0; i < 4000; ++i)
      for (const char c : text) whole += c == '@' ? std::to_string(i) : std::string{c};
    return whole;
  };
  const std::string huge(10'000'000, '$');
  const struct {
    const char *file;
    std::string text;
    std::size_t lines; // of findings
  } rows[] = {
      {"dat",     repeat("name@ value\n"),                    4000},
      {"dat",     repeat("name@ $(name@)x\n"),                4000},
      {"int",     repeat("Copy name@ word@ control@ true\n"), 4000},
      {"q",       repeat("Loop sure @\n"),                    4000},
      {"q",       repeat("[sec@]\n"),                         4000},
      {"cpy",     repeat("MkDr /x\n"),                        4000},
      {"conf.in", repeat(" $(no@)\n"),                        8000},
      {"dat",     "long " + huge,                             1   },
      {"cpy",     "MkDir " + huge,                            1   },
      {"q",       "# " + huge,                                1   },
  };
  for (const auto &row : rows) {
    const std::string file = fresh(row.file);
    write_file(file, read_file(file) + row.text);
    const Checked checked = check("p");
    EXPECT_EQ(lines_of(checked.out).size(), row.lines)
        << row.text.substr(0, 40) << checked.out.substr(0, 400);
  }
  for (const char *file : {"dat", "int", "q", "cpy"}) {
    const std::string path = fresh(file);
    fs::remove(path);
    ::mkfifo(path.c_str(), 0666);
    EXPECT_EQ(lines_of(check("p").out).size(), 1U) << file;
  }
}

} // namespace installer::test
