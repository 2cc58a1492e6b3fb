#include "cli/commands.h"

namespace sorvane::cli {

CLI::Option* Given::text(CLI::App& command, const std::string& option, const std::string& name,
                         const std::string& help) {
  return command.add_option_function<std::string>(
      option, [this, name](const std::string& text) { arguments[name] = text; }, help);
}

CLI::Option* Given::list(CLI::App& command, const std::string& option, const std::string& name,
                         const std::string& help) {
  CLI::Option* const added = command.add_option_function<std::vector<std::string>>(
      option,
      [this, name](const std::vector<std::string>& items) {
        // One empty text clears the list.
        arguments[name] = items.size() == 1 && items[0].empty() ? "[]" : listArgument(items);
      },
      help);
  // Each --option takes one item, so that it does not swallow the name that stands behind it.
  if (option.starts_with('-')) added->allow_extra_args(false);
  return added;
}

CLI::Option* Given::flag(CLI::App& command, const std::string& option, const std::string& name,
                         const std::string& help) {
  return command.add_flag_function(
      option, [this, name](std::int64_t count) { arguments[name] = count > 0 ? "true" : "false"; }, help);
}

CLI::Option* Given::onOff(CLI::App& command, const std::string& option, const std::string& name,
                          const std::string& help) {
  return command
      .add_option_function<std::string>(
          option, [this, name](const std::string& w) { arguments[name] = w == "on" ? "true" : "false"; }, help)
      ->check(CLI::IsMember({"on", "off"}));
}

}  // namespace sorvane::cli
