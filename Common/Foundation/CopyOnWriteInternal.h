#pragma once

#include <memory>

namespace utilia {

// The storage behind `pointer`, made if there is none and copied first if others share it.
//
// A count of one alone does not allow writing: use_count() is a relaxed read, and the thread that
// has just let go of its copy may have read from the storage until then. Taking and dropping one
// more reference reads that thread's decrement with acquire order, so its reads come before our
// writes.
template <class Storage>
Storage& ownStorage(std::shared_ptr<Storage>& pointer) {
    if (!pointer) {
        pointer = std::make_shared<Storage>();
    } else if (pointer.use_count() != 1) {
        pointer = std::make_shared<Storage>(*pointer);
    } else {
        std::shared_ptr<Storage>(pointer).reset();
    }
    return *pointer;
}

}  // namespace utilia
