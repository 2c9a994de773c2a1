#include "check/rules.h"

namespace installer::check {

std::vector<const Rule *> all_rules() {
  std::vector<const Rule *> all;
  for (const auto &group :
       {file_rules(), name_rules(), data_rules(), quest_rules(), copy_rules(), text_rules()})
    for (const Rule &rule : group) all.push_back(&rule);
  return all;
}

const Rule *find_rule(std::string_view name) {
  for (const Rule *rule : all_rules())
    if (name == rule->name) return rule;
  return nullptr;
}

void run_rules(const Product &product, Report &report) {
  std::size_t order = 0;
  for (const Rule *rule : all_rules()) {
    if (product.whole || rule->needs == Needs::Nothing) rule->run(product, {report, *rule, order});
    ++order;
  }
}

} // namespace installer::check
