#pragma once

namespace Marlo {

constexpr const char* kVersion = "2.3.5+53a111f";
// Product title with its legal line, as the banner of --help and --version shows it.
constexpr const char* kProductTitle = "KVX Marlo 1d-squared basecaller, (C) KVX Marlo developers.";

}  // namespace Marlo
