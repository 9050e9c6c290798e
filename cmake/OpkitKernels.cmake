# One line per kernel file; each is compiled at every instruction-set level.
list(APPEND opkit_kernels
    kernels/activation.cpp
    kernels/binary.cpp
    kernels/boxes.cpp
    kernels/pooling.cpp
    kernels/determinant.cpp
    kernels/quantized.cpp
    kernels/resize.cpp
    kernels/reduction.cpp
    kernels/image_columns.cpp
    kernels/lanes.cpp
    kernels/normalization.cpp
    kernels/selection.cpp
    kernels/shift.cpp
    kernels/transpose.cpp
)
