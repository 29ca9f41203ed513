#include "data_api/attribute_map.h"

namespace DataAPI {
namespace detail {

void ThrowUnsupportedNumericType() { throw std::runtime_error("Unsupported numeric type for generic conversion."); }

}  // namespace detail
}  // namespace DataAPI
