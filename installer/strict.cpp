#include "installer/strict.h"

namespace installer {

CopyWatch StrictWatch::watch() {
  return {
      .begins = [this](std::uint32_t index) { begins(index); },
      .event = [this](const FileEvent &event) { acts(event); },
      .ends = [this](std::uint32_t, int result) { return ends(result); },
  };
}

const char *StrictWatch::word() const { return or_empty(copy_command(command().type).word); }

/// A removal that finds nothing has been done before, unless the script is one that builds.
bool StrictWatch::may_find_nothing() const {
  return copy_command(command().type).deed == Deed::Removes && action_.stop_on_fail == 0;
}

void StrictWatch::fail(const Failure &failure) {
  told_ = true;
  count_failure(run_, {file_, command().line, word()}, failure);
}

void StrictWatch::begins(std::uint32_t index) {
  index_ = index;
  told_ = false;
  nothing_.clear();
  const char *separator = last_separator(file_);
  const std::string place = std::string{separator != nullptr ? separator + 1 : file_} + ":" +
                            std::to_string(command().line) + " " + word();
  note_place(run_, "in " + place);
  imsg("%s", place.c_str());
}

void StrictWatch::acts(const FileEvent &event) {
  const std::string path = or_empty(event.path);
  switch (event.result) {
  case FileResult::Done: imsg("%s %s", event.what, escape_controls(path).c_str()); break;
  case FileResult::Nothing: nothing_ = path; break;
  case FileResult::Failed:
    if (!may_find_nothing() || !is_absence(event.cause)) fail({event.what, path, event.cause});
    break;
  case FileResult::Kept: break;
  }
}

/// True when anything of the command failed: whatever is behind it would be done on a lie, such as
/// the file that says that all is there.
bool StrictWatch::ends(int result) {
  if (result != -1) ++run_.outcome.commands;
  if (result == 0 && !told_ && !may_find_nothing())
    fail({nothing_.empty() ? "nothing was done" : "nothing matches", nothing_, {}});
  return told_;
}

} // namespace installer
