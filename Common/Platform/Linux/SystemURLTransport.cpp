#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "Common/Platform/Linux/FileLoads.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Common/Platform/Linux/Modules/Net/NetModule.h"
#include "Common/Platform/Linux/URLAddress.h"
#include "Common/Platform/URLSession.h"

// Addresses are read here, so that a wrong one does not open the module; so are files, which need
// none. The body of a load is gathered here, too: it becomes the caller's without being copied.

namespace utilia::platform {
namespace {

constexpr double kDefaultIdleSeconds = 60;
constexpr double kDefaultTotalSeconds = 7.0 * 24 * 3600;
// Of what a server announces, so much is reserved at once.
constexpr std::uint64_t kMostReserved = std::uint64_t{4} << 20;

double secondsOr(double otherwise, std::chrono::duration<double> time) {
    return time.count() > 0 ? std::min(time.count(), kDefaultTotalSeconds) : otherwise;
}

struct WebLoad {
    explicit WebLoad(URLTransport::Done whenDone) : done(std::move(whenDone)) {}

    static std::uint32_t received(void* context, const std::uint8_t* bytes, std::size_t size,
                                  std::uint64_t announced) noexcept {
        auto& self = *static_cast<WebLoad*>(context);
        try {
            if (self.data.empty()) self.data.reserve(std::min(announced, kMostReserved));
            self.data.insert(self.data.end(), bytes, bytes + size);
        } catch (const std::bad_alloc&) {
            return UtiliaNetOutOfMemory;
        }
        return UtiliaNetTakenAll;
    }

    static void finished(void* context, const UtiliaNetResult* result) noexcept {
        const std::unique_ptr<WebLoad> self(static_cast<WebLoad*>(context));
        URLSessionResult answer;
        answer.statusCode = result->statusCode;
        if (result->error == 0) {
            answer.data = std::move(self->data);
        } else {
            self->preparedError.code = result->error;
            try {
                self->preparedError.description = result->description;
            } catch (const std::bad_alloc&) {
                // The number says it.
            }
            answer.error = std::move(self->preparedError);
        }
        self->done(std::move(answer));
    }

    URLTransport::Done done;
    Data data;
    // Made beforehand, so that ending does not need memory.
    Error preparedError = Error::url(URLErrorCode::Unknown, "");
};

class SystemURLTransport final : public URLTransport {
public:
    std::uint64_t start(const std::string& url, const URLSessionConfiguration& configuration,
                        Done done) override {
        auto address = parseURLAddress(url);
        if (!address) return refuse(address.error(), done);
        if (address->kind == URLAddress::Kind::File) {
            loadFile(address->text, configuration.maximumDataLength, std::move(done));
            return 0;
        }
        return startWeb(address->text, configuration, std::move(done));
    }

    void cancel(std::uint64_t load) noexcept override {
        // Whatever has a number has found the module, and looking for it again needs no memory.
        if (const auto* module = module_.load()) module->cancel(load);
    }

private:
    static std::uint64_t refuse(const Error& error, const Done& done) {
        URLSessionResult result;
        result.error = error;
        done(std::move(result));
        return 0;
    }

    std::uint64_t startWeb(const std::string& url, const URLSessionConfiguration& configuration,
                           Done done) {
        const auto module =
            moduleTable<UtiliaNetModule>("Net", kUtiliaNetSymbol, kUtiliaNetVersion);
        if (!module)
            return refuse(Error::url(URLErrorCode::Unknown, module.error().description), done);
        module_ = *module;
        auto load = std::make_unique<WebLoad>(std::move(done));
        const UtiliaNetRequest request{
            url.c_str(), secondsOr(kDefaultIdleSeconds, configuration.timeoutIntervalForRequest),
            secondsOr(kDefaultTotalSeconds, configuration.timeoutIntervalForResource),
            configuration.maximumDataLength};
        const UtiliaNetClient client{load.get(), &WebLoad::received, &WebLoad::finished};
        std::array<char, kUtiliaNetReasonSize> reason{};
        const std::uint64_t number = (*module)->start(&request, &client, reason.data());
        if (number == 0) {
            return refuse(
                Error::url(URLErrorCode::Unknown, "module Net: " + std::string(reason.data())),
                load->done);
        }
        load.release();  // now finished() owns it
        return number;
    }

    std::atomic<const UtiliaNetModule*> module_ = nullptr;
};

}  // namespace

const std::shared_ptr<URLTransport>& URLTransport::system() {
    static const auto* const transport =
        new std::shared_ptr<URLTransport>(std::make_shared<SystemURLTransport>());
    return *transport;
}

}  // namespace utilia::platform
