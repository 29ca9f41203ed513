#pragma once
// Error codes of libcurl's easy interface as std::error_code values, so that a failed transfer can
// travel as a std::system_error whose message is the library's own text for the code.

#include <string>
#include <system_error>

class CurlEasyCategory : public std::error_category {
public:
    static const CurlEasyCategory& Instance();

    const char* name() const noexcept override;  // "cURL (easy)"
    std::string message(int code) const override;
};
