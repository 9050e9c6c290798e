# One line per operator file, grouped by subsystem.
list(APPEND opkit_sources
    # elementwise
    ops/elementwise/binary_math.cpp
    ops/elementwise/bit_shift.cpp
    ops/elementwise/celu.cpp
    ops/elementwise/cmp.cpp
    ops/elementwise/hard_sigmoid.cpp
    ops/elementwise/logical.cpp
    ops/elementwise/mod.cpp
    ops/elementwise/round.cpp
    ops/elementwise/selu.cpp
    ops/elementwise/shrink.cpp
    ops/elementwise/sinh.cpp
    ops/elementwise/sqrt.cpp
    ops/elementwise/thresholded_relu.cpp
    ops/elementwise/unary.cpp
    ops/elementwise/where.cpp
    # selection
    ops/selection/argmin.cpp
    ops/selection/cum_sum.cpp
    ops/selection/hardmax.cpp
    ops/selection/non_zero.cpp
    ops/selection/reduction.cpp
    ops/selection/top_k.cpp
    ops/selection/unique.cpp
    # movement
    ops/movement/concat.cpp
    ops/movement/depth_to_space.cpp
    ops/movement/expand.cpp
    ops/movement/eyelike.cpp
    ops/movement/gather.cpp
    ops/movement/gather_elements.cpp
    ops/movement/gather_nd.cpp
    ops/movement/one_hot.cpp
    ops/movement/pad.cpp
    ops/movement/pad_rows.cpp
    ops/movement/pad_shape.cpp
    ops/movement/pad_walk.cpp
    ops/movement/permute.cpp
    ops/movement/reshape.cpp
    ops/movement/resize.cpp
    ops/movement/resize_linear.cpp
    ops/movement/resize_linear_tables.cpp
    ops/movement/resize_nearest.cpp
    ops/movement/resize_nearest_tables.cpp
    ops/movement/scatter.cpp
    ops/movement/scatter_nd.cpp
    # control
    ops/control/cond_end.cpp
    ops/control/else_begin.cpp
    ops/control/if.cpp
    ops/control/loop.cpp
    ops/control/resolvers.cpp
    ops/control/then_end.cpp
    # pooling
    ops/pooling/instance_normalization.cpp
    ops/pooling/lp_norm.cpp
    ops/pooling/max_unpool.cpp
    ops/pooling/pooling_ave.cpp
    ops/pooling/pooling_lp.cpp
    ops/pooling/pooling_max.cpp
    # matrix
    ops/matrix/convolution.cpp
    ops/matrix/determinant.cpp
    ops/matrix/im2col.cpp
    ops/matrix/product.cpp
    ops/matrix/quantized_product.cpp
    ops/matrix/gemm.cpp
    ops/matrix/matmul.cpp
    ops/matrix/qlinear_matmul.cpp
    # custom
    ops/custom/custom.cpp
    # detection
    ops/detection/dec_bbox.cpp
    ops/detection/detection_output.cpp
    ops/detection/non_max_suppression.cpp
)
