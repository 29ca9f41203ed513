#pragma once
// Base of every network layer. A layer maps a matrix of one row per time step to another; its
// weights are copied in at construction and never change, so one set of layers is shared by every
// runner, and all mutable state of a call lives in the scratch the runner hands in.

#include "common/views.h"

namespace BasecallNN {

class CblasLayer {
public:
    CblasLayer(int inSize_, int outSize_) : inSize(inSize_), outSize(outSize_) {}
    CblasLayer(const CblasLayer&) = delete;
    CblasLayer& operator=(const CblasLayer&) = delete;
    virtual ~CblasLayer() = default;

    // in: rows by inSize; out: OutputRows(rows) by outSize; both row-major with unit column stride
    // and padded row strides. scratch holds at least ScratchSize(rows) floats, 32-byte aligned, and
    // need not be zeroed. Safe to call from several threads at once with distinct in/out/scratch.
    virtual void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const = 0;
    // Process of two strands, each output exactly what Process gives its input alone. Layers that gain
    // from running both at once override it; this one runs them one after the other.
    virtual void ProcessPair(const Common::MatView<float>& in1, Common::MatView<float>& out1,
                             const Common::MatView<float>& in2, Common::MatView<float>& out2, float* scratch) const {
        Process(in1, out1, scratch);
        Process(in2, out2, scratch);
    }
    // Floats of scratch that Process, or ProcessPair with inputs of up to rows each, needs for a given
    // number of input rows.
    virtual int ScratchSize(int /*rows*/) const { return 0; }
    // Rows out for rows in.
    virtual int OutputRows(int rows) const { return rows; }

    const int inSize;
    const int outSize;
};

}  // namespace BasecallNN
