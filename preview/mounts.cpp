#include "preview/mounts.h"

#include "preview/tree.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace installer::preview {

namespace {

constexpr const char *KernelMade[] = {
    "autofs",    "binder",  "binfmt_misc", "bpf",        "cgroup",     "cgroup2",
    "configfs",  "debugfs", "devpts",      "devtmpfs",   "efivarfs",   "fusectl",
    "hugetlbfs", "ipathfs", "mqueue",      "nfsd",       "nsfs",       "proc",
    "pstore",    "resctrl", "rpc_pipefs",  "securityfs", "selinuxfs",  "smackfs",
    "sysfs",     "tracefs", "usbfs",       "xenfs",      "functionfs", "ocfs2_dlmfs"};

struct Attribute {
  const char *word;
  std::uint64_t bits;
};
constexpr Attribute attributes[] = {
    {"nosuid",      MOUNT_ATTR_NOSUID    },
    {"nodev",       MOUNT_ATTR_NODEV     },
    {"noexec",      MOUNT_ATTR_NOEXEC    },
    {"noatime",     MOUNT_ATTR_NOATIME   },
    {"nodiratime",  MOUNT_ATTR_NODIRATIME},
    {"nosymfollow", 0x00200000           }, // MOUNT_ATTR_NOSYMFOLLOW of newer headers
};

bool is_octal(char c) { return c >= '0' && c <= '7'; }

/// Blanks, tabs, line ends, "\" and "#" are listed as "\ooo".
std::string decode(const std::string &text) {
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool escape = text[at] == '\\' && at + 3 < text.size() && is_octal(text[at + 1]) &&
                        is_octal(text[at + 2]) && is_octal(text[at + 3]);
    if (!escape) {
      plain += text[at];
      continue;
    }
    plain += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 +
                               (text[at + 3] - '0'));
    at += 3;
  }
  return plain;
}

bool has_option(const std::string &options, const char *word) {
  return ("," + options + ",").find("," + std::string{word} + ",") != std::string::npos;
}

/// "id parent device root point options [tag]... - type source super-options"; the source can be
/// empty.
bool parse(const std::string &line, Mount &mount) {
  const std::size_t dash = line.find(" - ");
  const std::size_t last = line.rfind(' ');
  if (dash == std::string::npos || last < dash + 3) return false;
  std::istringstream fields{line};
  std::string parent, root, point, options;
  fields >> mount.id >> parent >> mount.device >> root >> point >> options;
  mount.type = line.substr(dash + 3, line.find(' ', dash + 3) - dash - 3);
  mount.root = decode(root);
  mount.point = mount.top = decode(point);
  mount.read_only = has_option(options, "ro") || has_option(line.substr(last + 1), "ro");
  for (const Attribute &row : attributes)
    if (has_option(options, row.word)) mount.attributes |= row.bits;
  return true;
}

/// A mount is hidden when its mount point leads to another one. Nothing is opened in earnest, which
/// could start an automatic mount or wait for a server.
bool is_visible(const Mount &mount) {
  const Descriptor found = tree_open(AT_FDCWD, mount.point, O_PATH | O_NOFOLLOW);
  struct ::statx info = {};
  return found &&
         ::statx(found.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &info) == 0 &&
         info.stx_mnt_id == mount.id;
}

} // namespace

std::vector<Mount> mounts_parse(std::istream &list) {
  std::vector<Mount> mounts;
  for (std::string line; std::getline(list, line);)
    if (Mount mount; parse(line, mount)) mounts.push_back(std::move(mount));
  return mounts;
}

std::vector<Mount> mounts_visible() {
  std::ifstream list{"/proc/self/mountinfo"};
  std::vector<Mount> mounts = mounts_parse(list);
  std::erase_if(mounts, [](const Mount &mount) { return !is_visible(mount); });
  std::ranges::sort(mounts, {}, &Mount::point);
  return mounts;
}

bool mounts_are_kernel_made(const std::string &type) {
  return std::ranges::find(KernelMade, type) != std::end(KernelMade);
}

} // namespace installer::preview
