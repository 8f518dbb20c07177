# Compiler settings shared by every target of the project.
#   quarn_options  warnings, sanitizers: everything that is compiled here
#   quarn_product  besides: what the product itself does without
add_library(quarn_options INTERFACE)
target_compile_options(quarn_options INTERFACE
  -UNDEBUG # assertions guard invariants in every build type; stands behind the type's own flags
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Wnon-virtual-dtor -Werror
  # The path that a failed assertion prints is relative to the tree, on every machine.
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
# 32-bit platforms: captures beyond 2 GiB, times beyond 2038.
target_compile_definitions(quarn_options INTERFACE
  _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(QUARN_SANITIZE)
  set(QUARN_SANITIZERS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_compile_options(quarn_options INTERFACE ${QUARN_SANITIZERS})
  target_link_options(quarn_options INTERFACE ${QUARN_SANITIZERS})
endif()

add_library(quarn_product INTERFACE)
target_link_libraries(quarn_product INTERFACE quarn_options)
# Without exceptions some platforms leave out the tables that call-stack dumps are made from.
target_compile_options(quarn_product INTERFACE -fno-exceptions -fno-rtti -funwind-tables)
