#include "preview/report.h"

#include <array>
#include <map>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace installer::preview {

namespace {

std::string octal(unsigned value, std::size_t digits) {
  std::string text;
  for (; value != 0 || text.size() < digits; value /= 8)
    text.insert(text.begin(), static_cast<char>('0' + value % 8));
  return text;
}

// ---- Names of users ----

std::string user_name(::uid_t id) {
  const struct ::passwd *entry = ::getpwuid(id);
  return entry != nullptr ? entry->pw_name : std::to_string(id);
}

std::string group_name(::gid_t id) {
  const struct ::group *entry = ::getgrgid(id);
  return entry != nullptr ? entry->gr_name : std::to_string(id);
}

/// Looked up once each: a directory service may be far away.
std::string owner(const FileStatus &status) {
  static std::map<std::pair<::uid_t, ::gid_t>, std::string> known;
  const auto [at, fresh] = known.try_emplace({status.user, status.group});
  if (fresh) at->second = user_name(status.user) + ":" + group_name(status.group);
  return at->second;
}

// ---- Fields ----

std::string mode(const FileStatus &status) { return octal(status.mode & 07777U, 4); }

std::string size(const FileStatus &status) {
  return S_ISDIR(status.mode) ? "-" : std::to_string(status.size);
}

/// A field of what is there, or "old->new" where it changes.
std::string field(const Change &change, std::string (*text)(const FileStatus &)) {
  if (change.verdict == Verdict::Added) return text(change.after);
  std::string before = text(change.before);
  if (change.verdict == Verdict::Deleted) return before;
  const std::string after = text(change.after);
  return before == after ? after : before + "->" + after;
}

/// What is no regular file says so behind its path.
std::string remark(const Change &change) {
  const FileStatus &status = change.verdict == Verdict::Deleted ? change.before : change.after;
  const std::string number =
      std::to_string(major(status.device)) + ":" + std::to_string(minor(status.device));
  switch (status.mode & S_IFMT) {
  case S_IFDIR:
    if (change.verdict != Verdict::Deleted) return {};
    return " (" + std::to_string(change.below) + (change.below == 1 ? " entry)" : " entries)");
  case S_IFLNK: return change.target.empty() ? "" : " -> " + report_name(change.target);
  case S_IFIFO: return " (pipe)";
  case S_IFSOCK: return " (socket)";
  case S_IFCHR: return " (character device " + number + ")";
  case S_IFBLK: return " (block device " + number + ")";
  default: return {};
  }
}

// ---- Manifest ----

constexpr const char *SumProgram = "sha256sum";
constexpr std::size_t SumSize = 64;
/// Files that one run of the program reads; each takes a descriptor.
constexpr std::size_t Batch = 200;

/// In the program's own way: with a "\" in front when something is escaped.
std::string manifest_line(const std::string &sum, const std::string &path) {
  std::string name;
  for (const char c : path) {
    if (c == '\\') name += "\\\\";
    else if (c == '\n') name += "\\n";
    else if (c == '\r') name += "\\r";
    else name += c;
  }
  return (name.size() == path.size() ? "" : "\\") + sum + "  " + name + "\n";
}

[[noreturn]] void become_sums(int output, const std::vector<Descriptor> &files) {
  std::vector<std::string> arguments{SumProgram, "--"};
  for (const Descriptor &file : files) {
    ::fcntl(file.get(), F_SETFD, 0);
    arguments.push_back("/proc/self/fd/" + std::to_string(file.get()));
  }
  std::vector<char *> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  ::dup2(output, STDOUT_FILENO);
  ::execvp(SumProgram, argv.data());
  ::_exit(1);
}

/// The sums of open files, one a line and in their order. The files are named by descriptor, so
/// that no name needs to be quoted and no path is too long. "" when the program fails.
std::string sums(const std::vector<Descriptor> &files) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const Descriptor from{ends[0]};
  Descriptor to{ends[1]};
  const ::pid_t pid = ::fork();
  if (pid == 0) become_sums(to.get(), files);
  static_cast<void>(to.close());
  std::string text;
  std::array<char, LineSize> block{};
  for (::ssize_t got = 0; (got = ::read(from.get(), block.data(), block.size())) != 0;)
    if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
    else if (errno != EINTR) break;
  int status = 1;
  while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0 ? text : std::string{};
}

/// The lines of one batch, which is then empty.
Refused add_sums(std::vector<Descriptor> &files, std::vector<std::string> &paths,
                 std::string &text) {
  const std::string lines = files.empty() ? std::string{} : sums(files);
  std::size_t at = 0;
  for (const std::string &path : paths) {
    const std::size_t end = lines.find('\n', at);
    if (end == std::string::npos || end - at < SumSize)
      return Refusal{std::string{SumProgram} + " has failed, the manifest is not complete", 0};
    text += manifest_line(lines.substr(at, SumSize), path);
    at = end + 1;
  }
  files.clear();
  paths.clear();
  return {};
}

} // namespace

std::string report_name(const std::string &name) {
  std::string text;
  for (std::string_view rest = name; !rest.empty();) {
    const Glyph glyph = first_glyph(rest);
    const std::string_view shown = rest.substr(0, glyph.size);
    rest.remove_prefix(glyph.size);
    if (shown == "\\") text += "\\\\";
    else if (!glyph.control && glyph.valid) text += shown;
    else
      for (const char c : shown) text += escape_byte(c);
  }
  return text;
}

std::string report_change(const Change &change) {
  std::string line{static_cast<char>(change.verdict)};
  line += " " + field(change, mode) + " " + field(change, owner) + " ";
  if (change.verdict != Verdict::Permissions) line += field(change, size) + " ";
  return line + report_name(change.path) + remark(change) +
         (change.rights.empty() ? "" : " (" + change.rights + ")");
}

std::string report_total(const Total &total) {
  const std::string fit = total_fits(total) ? "" : ", does not fit";
  return report_name(total.point) + ": " + std::to_string(total.files) +
         (total.files == 1 ? " file, " : " files, ") + std::to_string(total.needed) +
         " bytes needed, " + std::to_string(total.free) + " bytes free" + fit +
         ", unchanged: " + std::to_string(total.unchanged);
}

std::string report_changes(const Comparison &comparison) {
  std::string text;
  for (const Change &change : comparison.changes) text += report_change(change) + "\n";
  return text;
}

std::string report_totals(const Comparison &comparison) {
  if (comparison.totals.empty()) return "Nothing would change.\n";
  std::string text{comparison.changes.empty() ? "" : "\n"};
  for (const Total &total : comparison.totals) text += report_total(total) + "\n";
  return text;
}

Refused report_manifest(const View &view, const Comparison &comparison, std::string &text) {
  std::vector<Descriptor> files, roots;
  for (const Layer &layer : view.layers) roots.push_back(view_side(view, layer, Side::Both));
  std::map<std::string, std::size_t> sorted;
  for (const Written &written : comparison.written) sorted.emplace(written.path, written.layer);
  std::vector<std::string> paths;
  for (const auto &[path, layer] : sorted) {
    const std::string &point = view.layers[layer].mount.point;
    const std::size_t skipped = point == "/" ? 0 : point.size();
    files.push_back(tree_open(roots[layer].get(), path.substr(skipped), O_RDONLY));
    if (!files.back()) return refusal(path);
    paths.push_back(path);
    if (files.size() < Batch) continue;
    if (Refused refused = add_sums(files, paths, text)) return refused;
  }
  return add_sums(files, paths, text);
}

} // namespace installer::preview
