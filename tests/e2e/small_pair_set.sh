# Sourced by the end-to-end scripts: a small simulated set of short molecules (data/reads; an untouched
# copy in original/), annotated by the single-strand step into ss/, and ARGS, the pair run's options
# over it (one caller holding few chunks, so that a stop leaves pairs to resume, and few records per
# file, so that files roll over); PAIR_OPTS are ARGS without the index and the input folder.
#   small_pair_set BIN WORK MOLECULES RECORDS_PER_FASTQ
small_pair_set() {
    "$1/read_simulator" --output "$2/data" --seed 7 --molecules "$3" --min_length 2000 --max_length 4000 \
        --pair_fraction 0.8 --reads_per_file 3 --legacy_fraction 0.25 >/dev/null
    cp -r "$2/data/reads" "$2/original"
    "$1/basecaller_1d" --input_path "$2/data/reads" --save_path "$2/ss" --workers 2 --quiet >/dev/null
    PAIR_OPTS=(--flowcell KFC-R1A --kit KLK-D210 --num_callers 1 --cpu_threads_per_caller 1 --chunks_per_caller 2
               --records_per_fastq "$4" --qscore_filtering --min_qscore 6.5 --quiet)
    ARGS=("${PAIR_OPTS[@]}" --index_file "$2/ss/index_1d.tsv" --input_path "$2/data/reads")
}
