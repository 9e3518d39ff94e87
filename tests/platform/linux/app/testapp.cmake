# The GTK3 window the desktop backend's tests drive; built only where GTK3's files are present.
# Included from tests/CMakeLists.txt after the test programs are defined.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(ORV_GTK3 QUIET IMPORTED_TARGET gtk+-3.0)
endif()
if(ORV_GTK3_FOUND)
    add_executable(orv-gtk-testapp ${CMAKE_CURRENT_LIST_DIR}/orv-gtk-testapp.c)
    target_link_libraries(orv-gtk-testapp PRIVATE PkgConfig::ORV_GTK3)
    target_compile_options(orv-gtk-testapp PRIVATE -Wno-deprecated-declarations)
    if(TARGET test_platform_linux)
        add_dependencies(test_platform_linux orv-gtk-testapp)
        target_compile_definitions(test_platform_linux PRIVATE
            ORV_GTK_TESTAPP="$<TARGET_FILE:orv-gtk-testapp>")
    endif()
endif()

# The whole backend suite as one test labelled "desktop", for running inside
# tests/platform/linux/desktop-session.sh (ctest -L desktop); outside a session it skips.
if(TARGET test_platform_linux)
    add_test(NAME platform_linux_desktop_session COMMAND test_platform_linux)
    set_tests_properties(platform_linux_desktop_session PROPERTIES LABELS desktop TIMEOUT 600)
endif()
