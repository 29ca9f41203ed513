#include "async_caller/workflow_catalogue.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

namespace fs = boost::filesystem;

namespace AsyncCaller {

namespace {

// Codes are split at commas only: a blank stays part of its code, so "A, B" holds " B".
std::vector<std::string> splitCodes(const std::string& list) {
    std::vector<std::string> pieces;
    boost::split(pieces, list, boost::is_any_of(","));
    std::vector<std::string> codes;
    for (auto& piece : pieces) {
        if (!piece.empty()) {
            codes.push_back(std::move(piece));
        }
    }
    return codes;
}

}  // namespace

WorkflowCatalogue ScanWorkflows(const std::string& data_path) {
    std::vector<std::string> files;
    for (fs::directory_iterator it(data_path), end; it != end; ++it) {
        if (fs::is_regular_file(it->status()) && it->path().extension() == ".cfg") {
            files.push_back(it->path().string());
        }
    }
    // The directory's own order differs between file systems; a sorted walk makes the table and the
    // first-match rule of selection the same everywhere.
    std::sort(files.begin(), files.end());

    WorkflowCatalogue catalogue;
    for (const auto& file : files) {
        BasecallParams params;
        params.InitOptions();
        params.ReadConfigFile(file, 0, nullptr);
        const auto flowcells = splitCodes(params.compatible_flowcells);
        const auto kits = splitCodes(params.compatible_kits);
        const auto barcoding_kits = splitCodes(params.compatible_kits_with_barcoding);
        for (const auto& flowcell : flowcells) {
            for (const auto& kit : kits) {
                catalogue.push_back({flowcell, kit, file, false});
            }
            for (const auto& kit : barcoding_kits) {
                catalogue.push_back({flowcell, kit, file, true});
            }
        }
    }
    return catalogue;
}

void PrintWorkflows(const WorkflowCatalogue& catalogue, std::ostream& out) {
    out << "Available flowcell + kit combinations are:\n";
    out << "flowcell   kit        barcoding config_name\n";
    for (const auto& entry : catalogue) {
        std::ostringstream row;
        row << std::left << std::setw(11) << entry.flowcell << std::setw(11) << entry.kit
            << (entry.barcoding ? "included  " : "          ") << fs::path(entry.config_path).stem().string()
            << '\n';
        out << row.str();
    }
    out << std::endl;
}

WorkflowEntry FindWorkflow(const WorkflowCatalogue& catalogue, const std::string& flowcell, const std::string& kit) {
    for (const auto& entry : catalogue) {
        if (entry.flowcell == flowcell && entry.kit == kit) {
            return entry;
        }
    }
    throw std::runtime_error("Could not find matching workflow for flowcell " + flowcell + " and kit " + kit);
}

void SelectWorkflow(const WorkflowCatalogue& catalogue, BasecallParams& params, int argc, const char* const* argv) {
    if (params.flowcell.empty() && params.kit.empty()) {
        return;
    }
    if (params.flowcell.empty() || params.kit.empty()) {
        throw std::runtime_error(
            "User specified flowcell but not kit (or vice versa). Must specify both kit and flowcell to perform "
            "automatic config selection.");
    }
    if (!params.config_file.empty()) {
        throw std::runtime_error(
            "User specified both basecalling config directly and flowcell/kit ID. Must either specify config "
            "directly, or specify both kit and flowcell.");
    }
    const WorkflowEntry entry = FindWorkflow(catalogue, params.flowcell, params.kit);
    params.ReadConfigFile(entry.config_path, argc, argv);
}

}  // namespace AsyncCaller
