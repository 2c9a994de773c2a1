#include "check/payload.h"

#include "check/words.h"

#include "installer/entries.h"
#include "installer/lib.h"

#include <cstring>

#include <unistd.h>

namespace installer::check {

namespace {

constexpr std::size_t MostEntries = 1'000'000;
constexpr std::size_t ProgramHeader = 64;
constexpr int MostHops = 40;

/// The file type of an ELF header, in either byte order: 2 is a program, 3 a program or a library.
bool is_elf_program(const unsigned char *head, std::string_view name) {
  if (std::memcmp(head, "\177ELF", 4) != 0) return false;
  const int type = head[5] == 1 ? head[16] : head[17];
  return type == 2 || (type == 3 && name.find(".so") == std::string_view::npos);
}

bool is_program(const file &entry) {
  unsigned char head[ProgramHeader] = {};
  const Descriptor in = open_file(entry.dir, name_at(entry), O_RDONLY, Allow::Plain);
  if (!in || ::read(in.get(), head, sizeof head) < 2) return false;
  return std::memcmp(head, "#!", 2) == 0 || is_elf_program(head, entry_name(entry));
}

EntryKind kind_of(const file &entry) {
  if (is_dir(entry)) return EntryKind::Dir;
  return S_ISREG(entry.info.st_mode) ? EntryKind::File : EntryKind::Other;
}

/// The links of the folder, with the plain paths that they lead to.
using Links = std::map<std::string, std::string, std::less<>>;

/// The walk of one folder. What cannot be delivered makes the payload incomplete.
class Look {
public:
  Look(Payload &payload, Links &links) : payload_(payload), links_(links) {}

  void into(Entries entries, const std::string &place) {
    for (File entry : entries) {
      if (payload_.entries.size() >= MostEntries) payload_.complete = false;
      if (payload_.entries.size() >= MostEntries) break;
      at(*entry, place + "/" + entry_name(*entry));
    }
  }
  [[nodiscard]] MissedSink missed() {
    return [this](const Missed &) { payload_.complete = false; };
  }

private:
  void at(file &entry, const std::string &path) {
    Cause unread;
    static_cast<void>(read_status(entry, unread));
    if (entry.link) links_[path] = plain_path(*entry.link, parent_of(path));
    const EntryKind kind = entry.link ? EntryKind::Dangling : kind_of(entry);
    payload_.entries[path] = {kind, kind == EntryKind::File && is_program(entry)};
    if (kind == EntryKind::Dir) into(Entries{entry, missed()}, path);
  }

  Payload &payload_;
  Links &links_;
};

/// The path with the first link on its way replaced; empty when there is none.
std::string follow(const std::string &path, const Links &links) {
  for (std::size_t end = path.find('/', 1); end != std::string::npos;) {
    end = std::min(path.find('/', end + 1), path.size());
    const auto link = links.find(std::string_view{path}.substr(0, end));
    if (link != links.end()) return plain_path(link->second + path.substr(end), Here);
    if (end == path.size()) break;
  }
  return {};
}

PayloadEntry resolve(std::string path, const Payload &payload, const Links &links) {
  for (int hops = 0; hops < MostHops; ++hops) {
    if (path != Here && !path.starts_with(std::string{Here} + "/"))
      return {EntryKind::Outside, false};
    const std::string next = follow(path, links);
    if (next.empty()) break;
    path = next;
  }
  const PayloadEntry *entry = find_entry(payload, path);
  if (path == Here || (entry != nullptr && entry->kind == EntryKind::Dir))
    return {EntryKind::LinkedDir, false};
  return entry != nullptr ? *entry : PayloadEntry{EntryKind::Dangling, false};
}

} // namespace

Payload look_at(const std::string &folder) {
  Payload payload;
  Links links;
  Look look{payload, links};
  look.into(Entries{folder.c_str(), "*", look.missed()}, Here);
  for (const auto &[path, target] : links) payload.entries[path] = resolve(target, payload, links);
  return payload;
}

const PayloadEntry *find_entry(const Payload &payload, std::string_view path) {
  const auto found = payload.entries.find(path);
  return found != payload.entries.end() ? &found->second : nullptr;
}

} // namespace installer::check
