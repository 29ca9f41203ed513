#pragma once
// Catalogue of the basecalling workflows shipped as ".cfg" files in the data directory. Each file names
// the flow cells and kits it is meant for; the program itself knows no codes.

#include <iostream>
#include <string>
#include <vector>

#include "async_caller/basecall_params.h"

namespace AsyncCaller {

struct WorkflowEntry {
    std::string flowcell;
    std::string kit;
    std::string config_path;  // full path of the .cfg file
    bool barcoding = false;   // the kit came from compatible_kits_with_barcoding
};

using WorkflowCatalogue = std::vector<WorkflowEntry>;

// One entry per flow cell and kit of every ".cfg" file directly in data_path, in walk order. A file
// that does not parse throws.
WorkflowCatalogue ScanWorkflows(const std::string& data_path);

// The table shown by --print_workflows.
void PrintWorkflows(const WorkflowCatalogue& catalogue, std::ostream& out = std::cout);

// First entry with exactly this flow cell and kit; throws "Could not find matching workflow ..." if
// there is none.
WorkflowEntry FindWorkflow(const WorkflowCatalogue& catalogue, const std::string& flowcell, const std::string& kit);

// Applies --flowcell and --kit: reads the matching configuration into params, then the command line
// again on top of it. Does nothing when neither was given.
void SelectWorkflow(const WorkflowCatalogue& catalogue, BasecallParams& params, int argc, const char* const* argv);

}  // namespace AsyncCaller
