#include "preview/preview.h"

#include "preview/process.h"
#include "preview/report.h"

#include "installer/lines.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace installer::preview {

namespace {

constexpr int Wrong = 125;
constexpr int NotClean = 1;
constexpr const char *Usage = "Usage: installer-preview [-manifest FILE] [-round-trip] [-keep DIR] "
                              "[--] COMMAND [ARGUMENT]...\n";

/// The command line. A text that is null was not given.
struct Preview {
  const char *manifest = nullptr;
  const char *keep = nullptr;
  bool round_trip = false;
  std::vector<std::string> command{};
};

// ---- Messages ----

int fail(const Refusal &refused) {
  std::fprintf(stderr, "installer-preview: %s", report_name(refused.text).c_str());
  if (refused.cause != 0) std::fprintf(stderr, ": %s", std::strerror(refused.cause));
  std::fprintf(stderr, "\n");
  return Wrong;
}

void remark(const std::string &text) {
  std::fprintf(stderr, "installer-preview: %s\n", text.c_str());
}

/// Where runs would find fewer rights than on the machine.
void tell_limits(const View &view) {
  if (view.user)
    remark("an ordinary user's view: a directory of the machine cannot be renamed, and nothing of "
           "other users or groups can be changed");
  std::string list;
  for (const std::string &path : view.read_only) list += " " + report_name(path);
  if (!list.empty()) remark("cannot be written to in the view, unlike on the machine:" + list);
}

// ---- Options ----

struct Option {
  const char *word;
  const char *Preview::*value;
};
constexpr Option options[] = {
    {"-manifest", &Preview::manifest},
    {"-keep",     &Preview::keep    },
};

/// False: wrong use.
bool read_arguments(Preview &x, int argc, char **argv) {
  int next = 1;
  for (; next < argc && *argv[next] == '-'; ++next) {
    if (std::strcmp(argv[next], "--") == 0) {
      ++next;
      break;
    }
    if (std::strcmp(argv[next], "-round-trip") == 0) {
      x.round_trip = true;
      continue;
    }
    const Option *option = find_word(options, argv[next], s_strcmp);
    if (option == nullptr || ++next >= argc) return false;
    x.*(option->value) = argv[next];
  }
  x.command.assign(argv + next, argv + std::max(argc, next));
  return !x.command.empty();
}

// ---- The product ----

/// The name of the product's files, as the program derives it.
std::string product_name(const std::string &command) {
  std::string name(command.size() + 1, '\0');
  exename(name.data(), command.c_str(), name.size());
  return name.c_str();
}

/// True for the product's log and its back-ups: "name.log", and with a number behind it.
bool is_log(const std::string &path, const std::string &log) {
  return path.starts_with(log) &&
         path.find_first_not_of("0123456789", log.size()) == std::string::npos;
}

bool has_upgrade(const std::string &product) {
  for (const char *extension : {".cpy", ".q"}) {
    Lines lines{(product + extension).c_str()};
    if (lines && lines.enter("upgrade")) return true;
  }
  return false;
}

// ---- Runs ----

/// Everything that belongs to one preview.
struct Session {
  const Preview &preview;
  std::string folder;
  std::string product; ///< path of the product's files, without extension
  View view{};
  Streams streams{};
};

Comparison compare(const Session &x) {
  const std::string log = x.product + ".log";
  return compare_view(x.view, [&log](const std::string &path) { return is_log(path, log); });
}

RunResult run(Session &x, const std::vector<std::string> &more = {}) {
  std::vector<std::string> arguments = x.preview.command;
  arguments.insert(arguments.end(), more.begin(), more.end());
  return process_run(x.view, arguments, x.folder, x.streams);
}

/// A line between runs.
void say(const std::string &line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

/// One run of a round trip, with a line that says which. Nothing: it went well.
std::optional<int> step(Session &x, const std::vector<std::string> &more) {
  std::string line = "==";
  for (const std::string &word : x.preview.command) line += " " + report_name(word);
  for (const std::string &word : more) line += " " + word;
  say(line);
  const RunResult result = run(x, more);
  if (!result.started) return Wrong;
  if (result.status == 0) return {};
  say("\nThe run ended with status " + std::to_string(result.status) + ".");
  return result.status;
}

/// Install, upgrade when the product has one, removal.
std::optional<int> make_round_trip(Session &x) {
  const std::vector<std::string> automate{"-automate"};
  if (const auto status = step(x, automate)) return status;
  if (compare(x).changes.empty()) {
    say("\nThe install changed nothing, so that there is nothing to remove.");
    return NotClean;
  }
  if (has_upgrade(x.product))
    if (const auto status = step(x, automate)) return status;
  return step(x, {"-automate", "-special", "remove"});
}

// ---- Reports ----

int write_manifest(const Session &x, const Comparison &comparison, const Descriptor &folder,
                   const std::string &name) {
  std::string text;
  if (Refused refused = report_manifest(x.view, comparison, text)) return fail(*refused);
  Descriptor file{
      ::openat(folder.get(), name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
  Stream stream{file ? ::fdopen(file.get(), "w") : nullptr};
  if (!stream) return fail(refusal(x.preview.manifest));
  file.release();
  std::fwrite(text.data(), 1, text.size(), stream.get());
  return finish(std::move(stream)) ? 0 : fail(refusal(x.preview.manifest));
}

void print(const std::string &text) { std::fwrite(text.data(), 1, text.size(), stdout); }

/// False, with a message: not all of the report has been written.
bool flush_report() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
  fail(refusal("standard output"));
  return false;
}

int preview(Session &x, const Descriptor &manifest_folder, const std::string &manifest_name) {
  std::optional<int> status;
  if (x.preview.round_trip) {
    status = make_round_trip(x);
    if (status == Wrong) return Wrong;
  } else {
    const RunResult result = run(x);
    if (!result.started) return Wrong;
    status = result.status;
  }
  const Comparison comparison = compare(x);
  print("\n" + report_changes(comparison) + report_totals(comparison));
  if (x.preview.round_trip && !status) {
    status = comparison.changes.empty() ? 0 : NotClean;
    std::printf(*status == 0 ? "The round trip leaves nothing.\n"
                             : "The round trip leaves the above.\n");
  }
  if (*status == 0 && !std::ranges::all_of(comparison.totals, total_fits)) status = NotClean;
  int written = 0;
  if (x.preview.manifest != nullptr)
    written = write_manifest(x, comparison, manifest_folder, manifest_name);
  view_close(x.view);
  streams_close(x.streams);
  return flush_report() && written == 0 ? *status : Wrong;
}

/// Opened before the view is made: afterwards everything is read-only. What cannot become a file is
/// refused now and not after all questions.
Refused open_manifest_folder(const std::filesystem::path &manifest, Descriptor &folder) {
  const std::string parent = manifest.has_parent_path() ? manifest.parent_path().string() : ".";
  const std::string name = manifest.has_filename() ? manifest.filename().string() : ".";
  struct ::stat info = {};
  folder = Descriptor{::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!folder) return refusal(manifest.string());
  if (::fstatat(folder.get(), name.c_str(), &info, 0) != 0 || !S_ISDIR(info.st_mode)) return {};
  return Refusal{manifest.string(), EISDIR};
}

/// The working directory by a name that leads to it, which the view needs.
Refused find_folder(std::string &folder) {
  std::error_code error;
  folder = std::filesystem::current_path(error).string();
  if (error) return Refusal{"the working directory has no name", error.value()};
  struct ::stat here = {}, there = {};
  const Descriptor named = tree_open(AT_FDCWD, folder, O_PATH | O_DIRECTORY);
  if (!named || ::fstat(named.get(), &there) != 0 || ::stat(".", &here) != 0)
    return refusal("the working directory " + folder);
  if (!same_inode(here, there))
    return Refusal{"the working directory is hidden: its name leads to another one", 0};
  return {};
}

} // namespace

int main(int argc, char **argv) {
  Preview x;
  if (!read_arguments(x, argc, argv)) {
    std::fputs(Usage, stderr);
    return Wrong;
  }
  std::signal(SIGCHLD, SIG_DFL); // when it is ignored, no status arrives
  Session session{x, {}, {}};
  if (!streams_open(session.streams)) return fail(refusal("a standard stream"));
  if (Refused refused = find_folder(session.folder)) return fail(*refused);
  session.product = tree_join(session.folder, product_name(x.command.front()));
  Descriptor manifest_folder;
  const std::filesystem::path manifest{or_empty(x.manifest)};
  if (x.manifest != nullptr)
    if (Refused refused = open_manifest_folder(manifest, manifest_folder)) return fail(*refused);
  if (Refused refused = view_open(session.view, x.keep, session.folder)) return fail(*refused);
  if (!streams_connect(session.streams, view_terminals(session.view).get()))
    return fail(refusal("no terminal of the view's own"));
  tell_limits(session.view);
  return preview(session, manifest_folder, manifest.filename().string());
}

} // namespace installer::preview
