# What every target of the project is compiled with; link to vaultmover_warnings to get it.
add_library(vaultmover_warnings INTERFACE)
target_compile_options(
    vaultmover_warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)
