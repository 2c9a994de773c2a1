#include "check/rules.h"

#include <cstring>

namespace installer {

namespace {

using enum Level;
using enum Needs;
using enum Line;

constexpr Rule table[] = {
  // All files.
    {"unreadable-file",                                            Error,                                                   "A file of the product is missing or cannot be read.",
     unreadable_file,Nothing},
    {"binary-file",                                                            Error,                                                                                                       "The file holds a zero byte where the program stops reading.",
     binary_file,Nothing},
    {"byte-order-mark",                                                     Error,
     "The file begins with a byte order mark, which belongs to its first word.",byte_order_mark,
     Nothing, Alone},
    {"carriage-return",                                             Warning,                                                                                                               "Lines end with a carriage return.",carriage_return,Nothing},
    {"long-line",         Error,
     "What is behind the last character that a line may have is a line of its own.",long_line,
     Nothing, Alone},
    {"unknown-keyword",                                                  Error,                                                                                            "The first word of the line is no keyword of this file.",
     unknown_keyword,                                                                Nothing, Alone},
    {"missing-words",                                                       Error,                                                                                                              "The line lacks words and is dropped.",missing_words,Nothing, Alone},
    {"unread-words",                                              Warning,                                                                                              "The line has more words than are read.",unread_words,Nothing},
    {"comment-behind", Warning,"A # behind the words of a line does not begin a comment.",
     comment_behind,Nothing, Alone},
    {"outside-section",                                                            Error,                                                                                                      "A line before the first section is never read.",outside_section,
     Nothing},
    {"header-text",                                                     Error,                                                                                                            "Text behind the bracket of a header belongs to the section's name.",
     header_text,                                                             Nothing, Alone},
    {"repeated-section",                                               Error,                                                                                               "Of two sections with one name the second is never read.",
     repeated_section,                      Nothing, Alone},
    {"misspelt-section",Error,"No action runs the section, but one of a similar name is missing.",
     misspelt_section,Whole, Alone},
    {"missing-section",                                                Error,
     "A section is in the question file or the copy script, but not in both.",missing_section},
    {"missing-action",                                                       Warning,
     "The menu offers an upgrade or a removal for which there are no sections.",missing_action},
    {"bad-switch",                                             Error,                                                                                             "A comment that switches rules off is not understood.",bad_switch,
     Nothing},

 // Names and references, in all files.
    {"unknown-reference",                                                            Error,                                                                                                                                                   "A reference names a setting that has no value there.",
     unknown_reference},
    {"unclosed-reference",                                                            Error,                                                                                                   "A reference lacks its closing bracket.",unclosed_reference,
     Nothing},
    {"wrong-reference",                                                            Error,                                                                                                    "A setting is referred to as another language would do it.",
     wrong_reference,Whole, Alone},
    {"reference-for-name",                                                            Error,
     "A reference stands where it is not replaced, or where a name is meant.",reference_for_name,
     Nothing, Alone},
    {"name-for-path",                                                      Error,                                                                                                             "The name of a setting stands where a path is meant.",name_for_path,
     Whole, Alone},
    {"unknown-setting",                                            Error,                                                                                                   "A line reads a setting that has no value there.",unknown_setting},
    {"unknown-control",                                          Error,                                                                                                               "A control has no value there, so it decides nothing.",
     unknown_control},
    {"never-true", Error,                                                                                                       "A control can never have the value that it is compared with.",
     never_true                                             },
    {"comparison-alone",                                         Error,                                "A comparison has no control.",comparison_alone,Nothing},
    {"control-alone",                                                       Error,                                                                                                              "A control has no comparison, without which it decides nothing here.",
     control_alone,Nothing},
    {"fixed-setting",                                               Error,                                                                                                                 "A line sets a setting that cannot be changed.",fixed_setting,
     Nothing},
    {"lost-result",            Error,
     "A second result for a setting is kept behind the first, which stays its value.",lost_result},
    {"bad-action",              Error,"The action can only be install or upgrade.",bad_action,           Nothing},

 // Data file.
    {"assignment",                                                       Error,"Name and value are separated by more than blanks.",assignment,Nothing,
     Alone},
    {"quoted-value",               Warning,         "Quotes around a value belong to it.",quoted_value,Nothing},
    {"comment-in-value",                                              Warning,                                          "A # behind a value belongs to it.",comment_in_value,Nothing},
    {"header-in-data",                                                            Error,                                                                                                     "This file has no sections.",header_in_data,Nothing, Alone},
    {"repeated-setting",                                                      Error,                                                                                                             "Of two lines with one name the second is never seen.",
     repeated_setting,Nothing, Alone},
    {"program-setting",                                                 Error,                                                                                                        "The program sets this setting itself; the line has no effect.",
     program_setting,                                                                                                                                                Nothing, Alone},
    {"empty-value",                                                  Error,                                                                                                  "A setting has no value yet where a text refers to it.",empty_value},
    {"circle",         Error,                                                                                                             "The value of a setting leads back to itself.",circle,Nothing},
    {"misspelt-setting",                                               Error,                                                                                 "Nothing reads the setting, but one of a similar name is read.",
     misspelt_setting},
    {"unread-setting",                                                            Warning,                                                                                                  "Nothing reads the setting.",unread_setting},
    {"derived-value",                                                     Error,
     "A value was worked out from the default of a question, and stays when the answer is another.",derived_value},

 // Questions.
    {"loop-target",                                              Error,                                                                                              "A Loop does not name the number of an entry.",                                        loop_target,                                                                                                                                                                                                                                                                                                   Nothing},
    {"loop-end",  Warning,"A Loop goes behind the last entry, which ends the questions.",loop_end,
     Nothing},
    {"loop-repeats",                                                            Error,                                                                                                   "A Loop repeats for ever, at least unattended.",loop_repeats},
    {"no-default",                                                     Warning,                                                                                                       "A question has no default for an unattended run.",no_default},
    {"letter-default",     Error,"A default of a lone q or b quits, or goes back.",letter_default},
    {"yes-no-default",              Error,"The default of a yes-or-no question is neither.",yes_no_default},
    {"error-reference",         Error,
     "The text of Error is shown with its references as they are written, but in [upgrade].",error_reference,                          Nothing},
    {"long-prompt",Warning,"A prompt is longer than 999 characters.",long_prompt,                                     Nothing},
    {"ignored-control",   Error,                        "The control of a Copy has no effect.",ignored_control,Nothing},

 // Copy script.
    {"place-form",          Error,"A directory to copy into ends in a separator, or has none in it.",
     place_form,Nothing},
    {"place-missing",                                                   Error,                                                                                                  "Nothing has made the directory that something is put into.",
     place_missing},
    {"source-missing",                                                            Error,                                                                                                      "The product's folder does not have what is copied.",source_missing},
    {"payload-entry",                                                            Error,                                                                                                        "Something in the product's folder cannot be copied.",payload_entry             },
    {"file-expected",                                                            Error,                                                                                                    "A file is written to where a directory stands.",file_expected                                                                                                                                               },
    {"nested-copy",                                                            Warning,                                                                                                    "A directory is copied into a directory of its own name.",
     nested_copy                                                                     },
    {"pattern-in-path",                                                            Error,                                                                                                   "A wildcard stands where it is an ordinary character.",
     pattern_in_path,Nothing},
    {"bad-mode",                                                     Error,                                                                                                            "The mode is no octal number up to 7777.",bad_mode},
    {"mode-of-tree",                                                 Error,                                                                                                 "Directories get a mode with which nobody can enter them.",
     mode_of_tree         },
    {"never-executable",                      Warning,                                       "A program is made and never made executable.",never_executable},
    {"owner-form",                                              Error,                                                                                                              "The owner is not written as user or user:group.",owner_form                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                            },
    {"group-of-owner",                                              Warning,                                              "No group of the user's name can be meant.",group_of_owner},
    {"matches-nothing",                                             Error,                                    "The command finds nothing, which stops the run.",matches_nothing},
    {"may-match-nothing",                                              Warning,                                     "The command may find nothing, which would stop the run.",
     may_match_nothing},
    {"may-be-empty",                                              Warning,                                     "A setting that a removal or change begins with may be empty.",
     may_be_empty},
    {"exclusion-form",                                                Error,                                     "A pattern can match nothing that it is compared with.",
     exclusion_form,Nothing},
    {"late-result",                                            Error,
     "A result of this section is used in a path, which was worked out before.",late_result},
    {"several-words",                                                            Error,                                                                                                          "WFile writes one word; the next is a control.",several_words,Whole,
     Alone},
    {"left-behind",                                                            Warning,                                                                                                      "The removal leaves something that the install makes.",left_behind},
    {"early-marker",                                                            Warning,
     "What tells that the product is installed is not the last thing made.",early_marker},

 // Templates and blurb.
    {"shell-reference",                                                            Warning,
     "What a shell would replace looks like a reference, and is taken for one.",shell_reference},
    {"lost-indentation",                                                            Warning,                                                                                                    "A line of a template with a reference loses its indentation.",
     lost_indentation},
};

} // namespace

std::span<const Rule> rules() { return table; }

const Rule *find_rule(std::string_view name) {
  for (const Rule &rule : table)
    if (name == rule.name) return &rule;
  return nullptr;
}

void run_rules(const Product &product, Report &report) {
  for (const Rule &rule : table)
    if (product.whole || rule.needs == Nothing) rule.run(product, {report, rule});
}

} // namespace installer
