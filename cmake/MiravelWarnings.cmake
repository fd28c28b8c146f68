# Warnings are errors, for every target of the project.
add_compile_options(
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wcast-align -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough
)
