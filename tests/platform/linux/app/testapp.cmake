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

# The agent end to end (tests/platform/linux/e2e): it starts the agent, the visor and the test
# window as processes, so it needs all three built; without them it fails inside a session.
if(TARGET test_platform_linux_e2e)
    if(ORV_GTK3_FOUND AND ORV_HAVE_LINUX AND TARGET ocuvane-visor)
        add_dependencies(test_platform_linux_e2e orv-gtk-testapp ocuvane-agent ocuvane-visor)
        target_compile_definitions(test_platform_linux_e2e PRIVATE
            ORV_GTK_TESTAPP="$<TARGET_FILE:orv-gtk-testapp>"
            ORV_AGENT_EXE="$<TARGET_FILE:ocuvane-agent>"
            ORV_VISOR_EXE="$<TARGET_FILE:ocuvane-visor>")
    endif()
    add_test(NAME platform_linux_e2e_desktop_session COMMAND test_platform_linux_e2e)
    set_tests_properties(platform_linux_e2e_desktop_session PROPERTIES LABELS desktop TIMEOUT 300)
endif()
