#pragma once

namespace utilia::test {

// While one lives, operator new fails on this thread.
class FailingAllocation final {
public:
    FailingAllocation();
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

}  // namespace utilia::test
