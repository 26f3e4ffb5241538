#include "common/MapEntry.h"

namespace nis {

const MapEntry MapEntry::NOT_FOUND{};

} // namespace nis
