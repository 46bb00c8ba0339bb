# Build settings shared by every target of the project.

# Warnings for our own code only; third-party code built here keeps its own flags.
add_library(kestrel_warnings INTERFACE)
target_compile_options(kestrel_warnings INTERFACE -Wall -Wextra $<$<BOOL:${KESTREL_WERROR}>:-Werror>)

if(KESTREL_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()
if(KESTREL_SANITIZE_THREADS)
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
endif()

if(WIN32)
    # Hosts get DLLs that need nothing beyond the system: the GCC runtime,
    # libstdc++ and winpthread are linked in.
    add_link_options(-static)
endif()

if(WIN32 AND CMAKE_CROSSCOMPILING)
    include(${CMAKE_CURRENT_LIST_DIR}/Wine.cmake)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/HostHeaders.cmake)

# Adds every folder below the current one that has a CMakeLists.txt: each vendor's
# simulated module, each group of tests.
function(kestrel_add_subdirectories)
    file(GLOB entries LIST_DIRECTORIES true CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*)
    foreach(entry IN LISTS entries)
        if(IS_DIRECTORY ${entry} AND EXISTS ${entry}/CMakeLists.txt)
            add_subdirectory(${entry})
        endif()
    endforeach()
endfunction()
