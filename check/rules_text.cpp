// Rules for the templates and the blurb.

#include "check/rules.h"
#include "check/texts.h"
#include "check/values.h"
#include "check/words.h"

#include <algorithm>

namespace installer::check {

namespace {

void shell_reference(const Product &product, const Find &find) {
  for (const Template &text : product.templates)
    for (const TextLine &line : text.lines)
      for (const Reference &reference : references(line.text)) {
        const bool known = std::all_of(text.sections.begin(), text.sections.end(),
                                       [&](const CopySection *section) {
                                         return is_known_in(product, section, reference.name);
                                       });
        if (is_shell(text, reference) && !known)
          find(text.file, line.line,
               quoted(in_brackets(reference.name)) + " is a reference to no setting" +
                   product.names.hint(reference.name));
      }
}

void lost_indentation(const Product &product, const Find &find) {
  for (const Template &text : product.templates)
    for (const TextLine &line : text.lines)
      if (!text.blurb && (line.text.front() == ' ' || line.text.front() == '\t'))
        find(text.file, line.line, "a line with a reference loses its indentation");
}

using enum Level;
using enum Needs;
using enum Line;

// Rows of unequal length are more than the formatter can align.
// clang-format off
constexpr Rule table[] = {
    {"shell-reference", Warning,
     "What a shell would replace looks like a reference, and is taken for one.",
     shell_reference},
    {"lost-indentation", Warning,
     "A line of a template with a reference loses its indentation.",
     lost_indentation},
};
// clang-format on

} // namespace

std::span<const Rule> text_rules() { return table; }

} // namespace installer::check
