#pragma once
// Texts main prints or logs about a run: the banner of --help and --version, and the run header.

#include <string>

#include "basecall_1d2_params.h"

namespace Marlo {

// ": <product title> Version <version>", without a line end.
std::string Banner();

// Address of the basecall service: a bare port means this machine.
std::string ServiceAddress(const std::string& port);

// The lines that describe where the calling happens, for the mode main chose (cpu_mode, gpu_mode,
// use_service of params).
std::string ModeText(const Basecall1D2Params& params);

// The whole run header, one line per setting, every line ended by a line end.
std::string RunHeader(const Basecall1D2Params& params);

}  // namespace Marlo
