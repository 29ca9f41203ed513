#include "basecall_1d2_params.h"

namespace Marlo {

void Basecall1D2Params::InitOptions() {
    AsyncCaller::BasecallParams::InitOptions();
    AddOption("score_matrix", "Path to mismatch matrix for prior label alignment", score_matrix);
    AddOption("records_per_fastq,q", "Maximum number of records per fastq file (0 means use a single file).",
              records_per_fastq);
    AddOption("winsize1", "Short window length for event detection.", winsize1);
    AddOption("winsize2", "Long window length for event detection.", winsize2);
    AddOption("threshold1", "Shirt time-scale threshold for event detection.", threshold1);
    AddOption("threshold2", "Long time-scale threshold for event detection.", threshold2);
    AddOption("band_size", "Band size for 1d-squared alignment table.", band_size);
    AddOption("pa_band_size", "Band size for prior-alignment table.", pa_band_size);
    AddOption("gap_penalty", "Gap penalty for prior label alignment.", gap_penalty);
    AddOption("start_end_penalty", "Overhang penalty for prior label alignment.", start_end_penalty);
    AddOption("reverse_sequence", "Reverse the called sequence (for RNA sequencing).", reverse_sequence);
    AddOption("u_substitution", "Substute 'U' for 'T' in the called sequence (for RNA sequencing).", u_substitution);
    AddOption("input_path,i", "Path to input rawh5 files.", input_path);
    AddOption("index_file,f", "Index file from 1D basecall.", index_file, CmdLine | Required);
    AddOption("save_path,s", "Path to save fastq files.", save_path, CmdLine | Required);
    AddOption("port,p",
              "Hostname and port for connecting to basecall service (ie 'myserver:5555'), or port only (ie "
              "'5555'), in which case localhost is assumed.",
              port, CmdLine);
    AddOption("recursive,r", "Search for input files recursively.", recursive, Flag);
    AddOption("override_scaling", "Manually provide scaling parameters rather than estimating them from each read.",
              override_scaling, Flag);
    AddOption("scaling_med", "Median current value to use for manual scaling.", scaling_med, CmdLine);
    AddOption("scaling_mad", "Median absolute deviation to use for manual scaling.", scaling_mad, CmdLine);
    AddOption("resume",
              "Carry on with a run that was stopped: with the same index, input and save path, skip every pair "
              "that already has a row in sequencing_summary.txt, repair a FASTQ file or summary cut by the stop, "
              "and append to the outputs.",
              resume, Flag);
    AddOption("compress_fastq",
              "Write the FASTQ files gzip-compressed (.fastq.gz), one gzip member per record, so that each record "
              "is complete on disk as soon as its pair is. A run is resumed with the same choice.",
              compress_fastq, Flag);
    AddIgnoredOption("ipc_threads");
}

}  // namespace Marlo
