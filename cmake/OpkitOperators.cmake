# One line per operator file, grouped by subsystem.
list(APPEND opkit_sources
)
