#include "telemetry/curl_easy_category.h"

#include <curl/curl.h>

const CurlEasyCategory& CurlEasyCategory::Instance() {
    static const CurlEasyCategory category;
    return category;
}

const char* CurlEasyCategory::name() const noexcept { return "cURL (easy)"; }

std::string CurlEasyCategory::message(int code) const { return curl_easy_strerror(static_cast<CURLcode>(code)); }
