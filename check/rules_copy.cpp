// Rules for the copy script, the folder and the templates.

#include "check/rules.h"
#include "check/values.h"
#include "check/words.h"

#include "installer/actions.h"

#include <algorithm>
#include <unordered_set>

namespace installer::check {

namespace {

/// True for what cannot do its work without what its source names.
bool needs_source(Deed deed) {
  switch (deed) {
  case Deed::Copies:
  case Deed::Fills:
  case Deed::Moves:
  case Deed::Reads: return true;
  case Deed::Makes:
  case Deed::Writes:
  case Deed::Removes:
  case Deed::Changes:
  case Deed::Tests:
  case Deed::Stops: break;
  }
  return false;
}

/// True for what fails where it finds nothing, on a machine where that may well be so.
bool needs_match(Deed deed) {
  switch (deed) {
  case Deed::Moves:
  case Deed::Removes:
  case Deed::Changes: return true;
  case Deed::Copies:
  case Deed::Makes:
  case Deed::Fills:
  case Deed::Writes:
  case Deed::Tests:
  case Deed::Reads:
  case Deed::Stops: break;
  }
  return false;
}

bool is_section(const CopySection &section, const char *name) {
  return s_stricmp(section.name.c_str(), name) == 0;
}

template <class Look> void each_command(const Product &product, Look look) {
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps) look(section, step, section.effects[step.index]);
}

/// A path for a message: as the folder sees it.
std::string shown_path(const std::string &path) {
  const std::string here = std::string{Here} + "/";
  return quoted(path.starts_with(here) ? path.substr(here.size()) : path);
}

bool is_octal(const std::string &mode) {
  const std::size_t zeros = std::min(mode.find_first_not_of('0'), mode.size());
  return !mode.empty() && mode.size() - zeros <= 4 &&
         mode.find_first_not_of("01234567") == std::string::npos;
}

/// The items of an exclusion list.
std::vector<std::string> patterns_of(const Use &exclusions) {
  std::vector<std::string> patterns;
  std::string_view rest = exclusions.text;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(','), rest.size());
    if (end > 0) patterns.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return patterns;
}

const Use *target_of(const Step &step) {
  const Use *target = nullptr;
  for (const Use &use : step.uses)
    if (is_path(use.role)) target = &use;
  return target;
}

/// A removal or change that stops an install or upgrade when it finds nothing, and nothing says
/// that it does.
bool finds_nothing(const CopySection &section, const Step &step, const Effect &effect) {
  const bool stops = action_of_section(section.name.c_str()).stop_on_fail != 0;
  const bool gated = use_of(step, Role::Control) != nullptr;
  return stops && needs_match(step.deed) && !gated && effect.matches == 0 &&
         !(step.deed == Deed::Moves && effect.in_folder);
}

/// In an install, what nothing has made is not there.
bool is_sure(const CopySection &section, const Effect &effect) {
  return is_section(section, "install") && effect.own && !effect.unsure;
}

void place_form(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *place = use_of(step, Role::Place);
    if (place == nullptr) return;
    const char last = place->text.back();
    const bool simple = place->text.find_first_of("/\\") == std::string_view::npos;
    if (last == '/' || last == '\\')
      find(step, "a directory to copy into does not end in a separator; write " +
                     quoted(place->text.substr(0, place->text.size() - 1)));
    else if (simple && !has_reference(place->text))
      find(step, "a directory to copy into holds a separator; write " +
                     quoted("./" + std::string{place->text}));
    else if (const Text value = value_of(product, *place); simple && value)
      if (value->find_first_of("/\\") == std::string::npos || value->ends_with('/'))
        find(step, "a directory to copy into is a path, not " + quoted(*value));
  });
}

void place_missing(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &section, const Step &step, const Effect &effect) {
    const Use *place = target_of(step);
    if (!effect.place_missing || place == nullptr) return;
    const bool into = place->role == Role::Place;
    find(step, "nothing has made " +
                   (into ? quoted(place->text) : "the directory of " + quoted(place->text)) +
                   (effect.made_later ? " yet" : "") + " in [" + section.name + "]");
  });
}

void source_missing(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    if (effect.unsure || effect.matches > 0 || !(effect.in_folder || effect.own)) return;
    if (!needs_source(step.deed) || use_of(step, Role::Control) != nullptr) return;
    if (step.deed == Deed::Moves && !effect.in_folder) return;
    const Use &source = *use_of(step, Role::Path);
    if (effect.directories)
      return find(step, quoted(source.text) + " matches directories only; CopyDir copies them");
    find(step,
         "there is no " + quoted(source.text) + (effect.in_folder ? " in the folder" : " yet"));
  });
}

void payload_entry(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    if (effect.unfit.empty()) return;
    const PayloadEntry *entry = find_entry(product.payload, effect.unfit);
    const EntryKind kind = entry != nullptr ? entry->kind : EntryKind::Dangling;
    const char *what = kind == EntryKind::Dir         ? " is a directory"
                       : kind == EntryKind::LinkedDir ? " is a link to a directory"
                       : kind == EntryKind::Outside   ? " is a link out of the folder"
                       : kind == EntryKind::Dangling  ? " is a link to nothing"
                                                      : " is no plain file";
    find(step, shown_path(effect.unfit) + what + ", which is not copied");
  });
}

void file_expected(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    const Use *target = target_of(step);
    if (effect.onto_directory && target != nullptr)
      find(step, quoted(target->text) + " is a directory; the path of a file is meant");
  });
}

void nested_copy(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    if (!effect.nested) return;
    const std::string source{use_of(step, Role::Path)->text};
    find(step, "this makes " +
                   quoted(std::string{use_of(step, Role::Place)->text} + "/" +
                          std::string{name_of(source)}) +
                   "; did you mean " + quoted(source + "/*") + "?");
  });
}

void pattern_in_path(const Product &product, const Find &find) {
  each_step(product, [&](const Step &step) {
    for (const Use &use : step.uses) {
      if (!is_path(use.role)) continue;
      const bool pattern = use.operand == Operand::Pattern || use.operand == Operand::Bounded ||
                           use.operand == Operand::Directories;
      const std::string_view plain = pattern ? parent_of(use.text) : use.text;
      if (plain.find_first_of("*?") != std::string_view::npos)
        find(step, quoted(use.text) + (pattern ? ": only the last part of a path may be a pattern"
                                               : " is no pattern here, but a path with that name"));
    }
  });
}

void bad_mode(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *mode = use_of(step, Role::Mode);
    const Text value = mode != nullptr ? value_of(product, *mode) : Text{};
    if (!value || is_octal(*value)) return;
    const auto setting = product.settings.find(*value);
    const bool name = setting != product.settings.end() && setting->second.is_set();
    find(step, quoted(*value) + " is no octal number up to 7777" +
                   (name ? "; did you mean '$(" + *value + ")'?" : ""));
  });
}

void mode_of_tree(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    const Use *mode = use_of(step, Role::Mode);
    const Text value = mode != nullptr ? value_of(product, *mode) : Text{};
    if (!value || !is_octal(*value) || !effect.directories) return;
    const unsigned long bits = std::strtoul(value->c_str(), nullptr, 8);
    if ((bits & 0100) == 0)
      find(step, "with mode " + *value + " nobody can enter the directories below " +
                     quoted(use_of(step, Role::Path)->text));
  });
}

void never_executable(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &effect) {
    if (!effect.program.empty())
      find(step, quoted(effect.program) + " begins like a program; no Chmod makes it executable");
  });
}

void owner_form(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *owner = use_of(step, Role::Owner);
    const Text value = owner != nullptr ? value_of(product, *owner) : Text{};
    if (!value) return;
    const std::string user = value->substr(0, value->find(':'));
    const auto setting = product.settings.find(user);
    if (user.empty() || user.find_first_not_of("0123456789") == std::string::npos)
      find(step, quoted(*value) + " names no user; an owner is USER or USER:GROUP, by name");
    else if (user.find_first_of("./") != std::string::npos && value->find(':') == std::string::npos)
      find(step, quoted(*value) + " names no user; did you mean " +
                     quoted(user.substr(0, user.find_first_of("./")) + ":" +
                            user.substr(user.find_first_of("./") + 1)) +
                     "?");
    else if (!has_reference(owner->text) && setting != product.settings.end() &&
             setting->second.is_set())
      find(step, quoted(user) + " is a setting; did you mean '$(" + user + ")'?");
  });
}

void group_of_owner(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *owner = use_of(step, Role::Owner);
    const Text value = owner != nullptr ? value_of(product, *owner) : Text{};
    if (!value) return;
    const std::size_t colon = value->find(':');
    const std::string group = colon != std::string::npos ? value->substr(colon + 1) : *value;
    const bool digits = group.find_first_not_of("0123456789") == std::string::npos;
    if (group == "nobody" || (colon != std::string::npos && digits))
      find(step, "many machines have no group " + quoted(group) + "; write USER:GROUP");
  });
}

void matches_nothing(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &section, const Step &step, const Effect &effect) {
    if (finds_nothing(section, step, effect) && is_sure(section, effect))
      find(step,
           "there is no " + quoted(use_of(step, Role::Path)->text) + " yet, which stops the run");
  });
}

void may_match_nothing(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &section, const Step &step, const Effect &effect) {
    const bool open = effect.own && effect.unsure;
    if (finds_nothing(section, step, effect) && !is_sure(section, effect) && !open)
      find(step, "where there is no " + quoted(use_of(step, Role::Path)->text) +
                     " the run stops; let an Exist before it be its control");
  });
}

void may_be_empty(const Product &product, const Find &find) {
  std::unordered_set<std::string_view> told; // a line for the setting mends them all
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *source = use_of(step, Role::Path);
    if (source == nullptr || source->operand != Operand::Bounded) return;
    const Named *first = source->text.starts_with("$(") ? &source->references.front() : nullptr;
    if (first != nullptr && first->known != nullptr && first->known->can_be_empty &&
        told.insert(first->text).second)
      find(step, quoted(first->text) + " may be empty; a line for it in " + product.data_file +
                     " keeps it from that");
  });
}

void exclusion_form(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *exclusions = use_of(step, Role::Exclusions);
    if (exclusions == nullptr || exclusions->text == "-" || has_reference(exclusions->text)) return;
    const bool paths = step.deed == Deed::Changes;
    for (const std::string &pattern : patterns_of(*exclusions)) {
      const bool separated = pattern.find('/') != std::string::npos;
      if (paths && !separated && pattern.front() != '*' && pattern.front() != '?')
        find(step, "whole paths are compared here; write " + quoted("*/" + pattern));
      if (!paths && separated)
        find(step, "names are compared here, and none holds a separator as " + quoted(pattern));
    }
  });
}

void late_result(const Product &product, const Find &find) {
  for (const CopySection &section : product.scripts) {
    Names results;
    for (const Step &step : section.steps) {
      each_reference(step, [&](const Named &reference) {
        if (section.sets.contains(reference.text) &&
            (results.contains(reference.text) || reference.known == nullptr) &&
            use_of(step, Role::Owner) == nullptr)
          find(step, "$(" + std::string{reference.text} +
                         ") is replaced before the first command runs, not by its result");
      });
      if (const Use *result = use_of(step, Role::Result)) results.insert(result->text);
    }
  }
}

void several_words(const Product &product, const Find &find) {
  each_command(product, [&](const CopySection &, const Step &step, const Effect &) {
    const Use *word = use_of(step, Role::Word);
    const Use *control = use_of(step, Role::Control);
    if (word == nullptr || control == nullptr || control->text.starts_with('#')) return;
    const auto setting = product.settings.find(word->text);
    const bool literal = setting == product.settings.end() || !setting->second.is_set();
    if (literal && control->known == nullptr && !has_reference(word->text))
      find(step, "only " + quoted(word->text) + " is written, and " + quoted(control->text) +
                     " is a control; put the text into a setting");
  });
}

void left_behind(const Product &product, const Find &find) {
  for (const CopySection &section : product.scripts)
    for (const Step &step : section.steps)
      if (const Effect &effect = section.effects[step.index]; !effect.left.empty())
        find(step, "[remove] leaves " + shown_path(effect.left));
}

void early_marker(const Product &product, const Find &find) {
  for (const Marker &marker : product.markers) {
    if (marker.last == nullptr || marker.made == marker.last) continue;
    const Use &tested = *use_of(*marker.test, Role::Path);
    if (!tested.references.empty() && !tested.references.front().closed) continue;
    const std::string path = quoted(tested.text);
    if (marker.made == nullptr)
      find(*marker.test, "the install does not make " + path + ", which tells that it was done");
    else
      find(*marker.test, "a failed install is taken for a whole one: " + product.copy_file + ":" +
                             std::to_string(marker.last->line) + " comes after " + path);
  }
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"place-form", Error,
     "A directory to copy into ends in a separator, or has none in it.",
     place_form, Nothing},
    {"place-missing", Error,
     "Nothing has made the directory that something is put into.",
     place_missing},
    {"source-missing", Error,
     "The product's folder does not have what is copied.",
     source_missing},
    {"payload-entry", Error,
     "Something in the product's folder cannot be copied.",
     payload_entry},
    {"file-expected", Error,
     "A file is written to where a directory stands.",
     file_expected},
    {"nested-copy", Warning,
     "A directory is copied into a directory of its own name.",
     nested_copy},
    {"pattern-in-path", Error,
     "A wildcard stands where it is an ordinary character.",
     pattern_in_path, Nothing},
    {"bad-mode", Error,
     "The mode is no octal number up to 7777.",
     bad_mode},
    {"mode-of-tree", Error,
     "Directories get a mode with which nobody can enter them.",
     mode_of_tree},
    {"never-executable", Warning,
     "A program is made and never made executable.",
     never_executable},
    {"owner-form", Error,
     "The owner is not written as user or user:group.",
     owner_form},
    {"group-of-owner", Warning,
     "No group of the user's name can be meant.",
     group_of_owner},
    {"matches-nothing", Error,
     "The command finds nothing, which stops the run.",
     matches_nothing},
    {"may-match-nothing", Warning,
     "The command may find nothing, which would stop the run.",
     may_match_nothing},
    {"may-be-empty", Warning,
     "A setting that a removal or change begins with may be empty.",
     may_be_empty},
    {"exclusion-form", Error,
     "A pattern can match nothing that it is compared with.",
     exclusion_form, Nothing},
    {"late-result", Error,
     "A result of this section is used in a path, which was worked out before.",
     late_result},
    {"several-words", Error,
     "WFile writes one word; the next is a control.",
     several_words, Whole, Alone},
    {"left-behind", Warning,
     "The removal leaves something that the install makes.",
     left_behind},
    {"early-marker", Warning,
     "What tells that the product is installed is not the last thing made.",
     early_marker},
};
// clang-format on

} // namespace

std::span<const Rule> copy_rules() { return table; }

} // namespace installer::check
