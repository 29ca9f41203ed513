// The ping transport of TelemetryAggregator: one libcurl easy handle, set up at construction and
// reused for every ping, posting each document as a JSON body. A failure is reported on standard
// error and stops the sending; it never fails the run.

// CURLOPT_REDIR_PROTOCOLS takes the protocol bit mask; newer libcurl marks it deprecated in favour
// of a text form, which would only add a warning here.
#define CURL_DISABLE_DEPRECATION

#include <cstdint>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>

#include "common/logger.h"
#include "telemetry/curl_easy_category.h"
#include "telemetry/json_text.h"
#include "telemetry/telemetry_aggregator.h"

namespace {

std::mutex curl_library_mutex;
int curl_library_users = 0;

// The response is of no interest, but it must be consumed, or the library would call the transfer
// failed.
std::size_t discardResponse(char* /*data*/, std::size_t size, std::size_t count, void* sink) {
    const std::size_t bytes = size * count;
    if (sink != nullptr) {
        *static_cast<std::uint64_t*>(sink) += bytes;
    }
    return bytes;
}

struct HeaderListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// The handle keeps pointers to a request's body and header list, which die with the request: they are
// taken off the handle when the request ends, by failure as well.
class RequestReset {
public:
    explicit RequestReset(CURL* curl_) : curl(curl_) {}
    ~RequestReset() {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(nullptr));
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    }
    RequestReset(const RequestReset&) = delete;
    RequestReset& operator=(const RequestReset&) = delete;

private:
    CURL* curl;
};

// The write callback points into this file; it is reset when the sending ends.
class WriteFunctionReset {
public:
    explicit WriteFunctionReset(CURL* curl_) : curl(curl_) {}
    ~WriteFunctionReset() { curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr)); }
    WriteFunctionReset(const WriteFunctionReset&) = delete;
    WriteFunctionReset& operator=(const WriteFunctionReset&) = delete;

private:
    CURL* curl;
};

}  // namespace

TelemetryAggregator::CurlLibrary::CurlLibrary() {
    std::lock_guard<std::mutex> lock(curl_library_mutex);
    if (curl_library_users == 0) {
        const CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
        if (code != CURLE_OK) {
            throw std::system_error(static_cast<int>(code), CurlEasyCategory::Instance(),
                                    "Could not start the transfer library");
        }
    }
    ++curl_library_users;
}

TelemetryAggregator::CurlLibrary::~CurlLibrary() {
    std::lock_guard<std::mutex> lock(curl_library_mutex);
    if (--curl_library_users == 0) {
        curl_global_cleanup();
    }
}

void TelemetryAggregator::CurlHandleDeleter::operator()(CURL* handle) const { curl_easy_cleanup(handle); }

void TelemetryAggregator::CheckCurl(CURLcode code) const {
    if (code != CURLE_OK) {
        throw std::system_error(static_cast<int>(code), CurlEasyCategory::Instance(), std::string(error_buffer));
    }
}

void TelemetryAggregator::setupHandle() {
    error_buffer[0] = '\0';
    curl.reset(curl_easy_init());
    if (!curl) {
        throw std::runtime_error("Could not create the transfer handle for telemetry pings.");
    }
    CURL* handle = curl.get();
    CheckCurl(curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error_buffer));
    // The program has other threads: no signals for time-outs.
    CheckCurl(curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS)));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_USERAGENT, user_agent.c_str()));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_CAINFO, cert_path.c_str()));
    CheckCurl(curl_easy_setopt(handle, CURLOPT_POST, 1L));
    // No proxy of our own: the environment's proxy variables decide.
    CheckCurl(curl_easy_setopt(handle, CURLOPT_PROXY, static_cast<char*>(nullptr)));
}

void TelemetryAggregator::SendPings(const rapidjson::Value& documents) {
    std::lock_guard<std::mutex> lock(mutex);
    sendPings(documents);
}

void TelemetryAggregator::sendPings(const rapidjson::Value& documents) {
    CURL* handle = curl.get();
    try {
        // No overall time limit: a slow endpoint delays the end of the run but loses nothing.
        CheckCurl(curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, 0L));
        CheckCurl(curl_easy_setopt(handle, CURLOPT_URL, url.c_str()));
        CheckCurl(curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discardResponse));
        WriteFunctionReset write_function_reset(handle);
        std::uint64_t response_bytes = 0;
        for (const auto& document : documents.GetArray()) {
            const std::string body = Telemetry::ToJsonText(document, false);
            std::unique_ptr<curl_slist, HeaderListDeleter> header_list;
            RequestReset request_reset(handle);
            CheckCurl(curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str()));
            CheckCurl(curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())));
            CheckCurl(curl_easy_setopt(handle, CURLOPT_WRITEDATA, static_cast<void*>(&response_bytes)));
            for (const auto& header : headers) {
                curl_slist* head = curl_slist_append(header_list.get(), header.c_str());
                if (head == nullptr) {
                    throw std::runtime_error("Could not build the header list of a ping.");
                }
                if (head != header_list.get()) {  // the first entry starts the list
                    header_list.reset(head);
                }
            }
            CheckCurl(curl_easy_setopt(handle, CURLOPT_HTTPHEADER, header_list.get()));
            error_buffer[0] = '\0';
            CheckCurl(curl_easy_perform(handle));
            long status = 0;
            CheckCurl(curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status));
            // An error status is the endpoint's business; it is not retried.
            KVX_LOG(verbose) << "Telemetry ping sent to " << url << ", response status " << status << ".";
        }
    } catch (const std::exception& e) {
        std::cerr << "Failed to send ping to " << url << ": " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "Failed to send ping to " << url << ": unknown error" << std::endl;
    }
}
