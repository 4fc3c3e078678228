#include "say/command_text.h"

#include <fmt/format.h>

#include "say/text.h"

namespace host {

std::string commandFor(Direction direction, const std::string& plain,
                       const CommandOptions& options) {
    std::string words(options.undo ? "undo" : toWord(direction));
    if (!options.undo && options.allowPlain) words += " --allow-plain";
    if (!options.undo && options.replace) words += " --replace";
    if (!options.undo && options.dropAttributes) words += " --drop-attributes";
    const bool encrypts = direction == Direction::kEncrypt;
    if (!options.undo && options.discard && encrypts) words += " --discard";
    if (!options.worker.empty()) words += " --worker " + shellWord(options.worker);
    return commandFor(words, plain);
}

std::string commandFor(std::string_view command, const std::string& plain) {
    return fmt::format("`vaultctl {} {}`", command, shellWord(plain));
}

std::string withArticle(Direction direction) {
    return fmt::format("{} {}", direction == Direction::kEncrypt ? "an" : "a", toWord(direction));
}

}  // namespace host
