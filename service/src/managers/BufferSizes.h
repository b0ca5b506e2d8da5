#pragma once

namespace kelm {

class KelmGraph;

// Enters into the record how large the graph's buffers are, in bytes, as the header of its blob
// tells. False if the configured kind of device cannot read that; the record may have some then.
[[nodiscard]] bool fillBufferSizes(KelmGraph& graph);

}  // namespace kelm
