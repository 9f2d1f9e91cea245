# Every target of the project builds with warnings as errors, on both toolchains.
add_compile_options(-Wall -Wextra -Werror)
