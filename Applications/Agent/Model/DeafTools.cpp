#include "Applications/Agent/Model/DeafTools.h"

namespace utilia::agent {

bool DeafTools::hasNotTaken(const std::string& identifier) {
    if (!actions_.isDeaf(identifier)) return false;
    if (!identifiers_.insert(identifier).second) return true;
    if (!timer_) timer_ = every_(kInterval, [this] { look(); });
    actions_.changed();
    return true;
}

void DeafTools::forget(const std::string& identifier) {
    if (identifiers_.erase(identifier) == 0) return;
    if (identifiers_.empty()) timer_.reset();
    actions_.changed();
}

void DeafTools::look() {
    const auto all = identifiers_;
    for (const std::string& identifier : all) {
        if (!identifiers_.contains(identifier) || actions_.isDeaf(identifier)) continue;
        forget(identifier);
        actions_.hearsAgain(identifier);
    }
}

}  // namespace utilia::agent
