# One line per kernel file; each is compiled at every instruction-set level.
list(APPEND opkit_kernels
)
