# Header-only libraries from Debian's packages (nlohmann-json, CLI11), usable by
# every build. A cross build cannot put the host's /usr/include on its include
# path, so it gets a copy of just the library's own header folder.
#
# kestrel_header_library(<target> <package> <header folder under /usr/include>)
function(kestrel_header_library target package folder)
    if(TARGET ${target})
        return()
    endif()
    add_library(${target} INTERFACE)
    if(CMAKE_CROSSCOMPILING)
        set(copy ${CMAKE_BINARY_DIR}/host-headers/${package})
        if(NOT EXISTS /usr/include/${folder})
            message(FATAL_ERROR "/usr/include/${folder} is missing: install the Debian package of ${package}")
        endif()
        file(COPY /usr/include/${folder} DESTINATION ${copy})
        target_include_directories(${target} SYSTEM INTERFACE ${copy})
    else()
        find_package(${package} REQUIRED)
        target_link_libraries(${target} INTERFACE ${ARGN})
    endif()
endfunction()
