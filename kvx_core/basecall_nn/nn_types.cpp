#include "basecall_nn/nn_types.h"

namespace BasecallNN {

const char* DecodeTypeName(int decodeType) {
    switch (decodeType) {
        case kNontransducer:
            return "Nontransducer";
        case kTransducer:
            return "Transducer";
        case kFlipflop:
            return "Flipflop";
        default:
            return "Unknown";
    }
}

}  // namespace BasecallNN
