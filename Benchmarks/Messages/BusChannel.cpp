#include <cerrno>
#include <optional>

#include <systemd/sd-bus.h>

#include "Benchmarks/Messages/BusConnection.h"
#include "Benchmarks/Messages/BusHost.h"
#include "Benchmarks/Messages/Channel.h"

namespace utilia::bench {
namespace {

constexpr const char* kPath = "/benchmark";
constexpr const char* kInterface = "com.korvane.utilia.Benchmark";
constexpr const char* kMember = "Take";

std::string busName(const std::string& name) { return std::string(kInterface) + "." + name; }

class BusReceiver final : public MessageReceiver {
public:
    BusReceiver(const std::string& address, const std::string& name) : bus_(connectToBus(address)) {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Take", "ay", "", onTake, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};
        checkBus(sd_bus_add_object_vtable(bus_.get(), nullptr, kPath, kInterface, table, this),
                 "add_object_vtable");
        checkBus(sd_bus_request_name(bus_.get(), busName(name).c_str(), 0), "sd_bus_request_name");
    }

    void run(const std::function<bool(Bytes)>& take, const std::function<bool()>& done) override {
        take_ = &take;
        goesOn_ = true;
        std::uint64_t asked = nanoseconds();
        while (goesOn_) {
            const int result = sd_bus_process(bus_.get(), nullptr);
            checkBus(result, "sd_bus_process");
            if (result == 0)
                checkBus(sd_bus_wait(bus_.get(), done ? 50'000 : UINT64_MAX), "sd_bus_wait");
            if (done && (result == 0 || nanoseconds() - asked > 50'000'000)) {
                asked = nanoseconds();
                if (done()) return;
            }
        }
    }

private:
    static int onTake(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<BusReceiver*>(data);
        const void* bytes = nullptr;
        std::size_t size = 0;
        checkBus(sd_bus_message_read_array(message, 'y', &bytes, &size),
                 "sd_bus_message_read_array");
        if (self.goesOn_)
            self.goesOn_ = (*self.take_)({static_cast<const std::uint8_t*>(bytes), size});
        return 1;
    }

    BusPointer bus_;
    const std::function<bool(Bytes)>* take_ = nullptr;
    bool goesOn_ = false;
};

class BusSender final : public MessageSender {
public:
    BusSender(const std::string& address, const std::string& name)
        : bus_(connectToBus(address)), name_(busName(name)) {}

    void send(Bytes bytes) override {
        sd_bus_message* message = nullptr;
        checkBus(sd_bus_message_new_method_call(bus_.get(), &message, name_.c_str(), kPath,
                                                kInterface, kMember),
                 "sd_bus_message_new_method_call");
        checkBus(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()),
                 "append_array");
        checkBus(sd_bus_message_set_expect_reply(message, 0), "set_expect_reply");
        checkBus(sd_bus_send(bus_.get(), message, nullptr), "sd_bus_send");
        checkBus(sd_bus_flush(bus_.get()), "sd_bus_flush");
        sd_bus_message_unref(message);
    }

private:
    BusPointer bus_;
    std::string name_;
};

class BusChannel final : public MessageChannel {
public:
    explicit BusChannel(BusKind kind) : kind_(kind) {}
    void prepare(const Settings& settings) override { host_.emplace(kind_, settings.folder); }
    std::unique_ptr<MessageReceiver> receiver(const std::string& name) override {
        return std::make_unique<BusReceiver>(host_->address(), name);
    }
    std::unique_ptr<MessageSender> sender(const std::string& name) override {
        return std::make_unique<BusSender>(host_->address(), name);
    }

private:
    BusKind kind_;
    std::optional<BusHost> host_;
};

}  // namespace

std::unique_ptr<MessageChannel> makeBrokerChannel() {
    return std::make_unique<BusChannel>(BusKind::Broker);
}
std::unique_ptr<MessageChannel> makeDaemonChannel() {
    return std::make_unique<BusChannel>(BusKind::Daemon);
}

}  // namespace utilia::bench
