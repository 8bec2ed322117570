#include "Common/UtiliaCommon/CEP/CEPClock.h"

#include <utility>

#include "Common/Platform/RunLoop.h"

namespace utilia {
namespace {

class SystemClock final : public CEPClock {
public:
    Date now() const override { return Date::now(); }
    Handle repeatingTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval,
                          std::function<void()> fire) override {
        return platform::Timer::repeatingTimer(delay, interval, std::move(fire));
    }
};

}  // namespace

std::shared_ptr<CEPClock> CEPClock::system() { return std::make_shared<SystemClock>(); }

}  // namespace utilia
