#pragma once

// The view: the mounts of the machine once more, with an overlay in the place of each file system
// that can be written to, and everything else read-only. Calling order: `view_open` once, early;
// then `process_run` for each run; between and after runs, `compare_view` reads what they changed.
//
// This process moves into name spaces of its own, where every mount of the machine is read-only and
// nothing spreads to the machine's own mounts. What is made there goes with the processes that are
// in it. It keeps the machine's root directory, so that it never runs nor reads what a previewed
// run has changed; only that run itself lives in the view.

#include "preview/mounts.h"
#include "preview/tree.h"

#include <string>
#include <vector>

namespace installer::preview {

/// An overlay in the view. `number` names its directories; `mount` is what it stands for; `start`
/// is the status that its root directory began with.
struct Layer {
  int number = 0;
  Mount mount;
  struct ::stat start = {};
};

/// A file system that each run gets anew: its type, and where it is mounted.
struct Fresh {
  std::string type, point;
};

/// `user`: it has a user name space, for want of rights. `place`: the private memory file system
/// that all of it stands on. `layers`: the overlays, of `attempts` that were made. `fresh`: the
/// machine's processes and message queues, in whose place each run has its own. `read_only`: what
/// can be written to on the machine, but not in the view. `keeps`: the layers are kept in a
/// directory.
struct View {
  bool user = false;
  Descriptor place{};
  std::vector<Layer> layers;
  int attempts = 0;
  std::vector<Fresh> fresh;
  std::vector<std::string> read_only;
  bool keeps = false;
};

/// The directories of a layer: the machine's own, what runs changed, and both in one as the run saw
/// it. None has the file systems that are mounted below it.
enum class Side { Machine, Changed, Both };

/// Makes the view. `keep`: an empty directory for the changed files, which is created when missing;
/// null: they are kept in memory. `folder`: the working directory, absolute. Afterwards the working
/// directory of this process is the root of the view, for `process_run`.
[[nodiscard]] Refused view_open(View &view, const char *keep, const std::string &folder);
/// The root directory of one side of a layer; empty with errno set.
[[nodiscard]] Descriptor view_side(const View &view, const Layer &layer, Side side);
/// The terminal file system of the view; empty with errno set.
[[nodiscard]] Descriptor view_terminals(const View &view);
/// Puts a link `mount` to the mount point beside each kept layer, and removes those that are empty.
void view_close(const View &view);

} // namespace installer::preview
