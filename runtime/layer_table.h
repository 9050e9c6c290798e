// Where a request's layer table lies, and the records in it. All offsets count from the table's base.
#ifndef OPKIT_RUNTIME_LAYER_TABLE_H
#define OPKIT_RUNTIME_LAYER_TABLE_H

#include "opkit/records.h"

namespace opkit {

// Byte address arithmetic that a null base or an offset from outside the object does not make undefined.
inline uint8_t* Address(void* base, int64_t offset)
{
    return reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(base) + static_cast<uintptr_t>(offset));
}

inline const ModelOffsets& OffsetsOf(const ForwardParam& request)
{
    return *static_cast<const ModelOffsets*>(request.attr);
}

inline uint8_t* LayerTableBase(const ForwardParam& request)
{
    return Address(request.model, OffsetsOf(request).layerTableOffset);
}

// Bytes from the layer table to the end of the model buffer.
inline uint32_t LayerTableSize(const ForwardParam& request)
{
    return request.modelSize - OffsetsOf(request).layerTableOffset;
}

inline uint32_t LayerCount(const ForwardParam& request)
{
    return *reinterpret_cast<uint32_t*>(LayerTableBase(request));
}

inline uint32_t LayerOffset(const ForwardParam& request, uint32_t layer)
{
    return reinterpret_cast<uint32_t*>(LayerTableBase(request))[1 + layer];
}

inline LayerRecord& LayerRecordAt(const ForwardParam& request, uint32_t layerOffset)
{
    return *reinterpret_cast<LayerRecord*>(Address(LayerTableBase(request), layerOffset));
}

}  // namespace opkit

#endif  // OPKIT_RUNTIME_LAYER_TABLE_H
