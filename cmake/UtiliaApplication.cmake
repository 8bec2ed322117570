# utilia_application(TARGET NAME … IDENTIFIER … SOURCES … [COMMENT …] [LINK …] [INFO …] [LOCALIZATION …] [RESOURCES …]
#                    [ICON …] [HELPERS …] [WITHIN …] [COMMAND] [SAMPLE])
#
# An application that loads the framework, as a bundle in the build tree: Applications/NAME.app/Contents with the
# program (Linux/TARGET) and its Info.plist, and a desktop entry by which it is found once it lies in an "applications"
# folder (share/applications/IDENTIFIER.desktop). What is installed has the same shape, below lib/korvane-utilia; the
# desktop entries go to share/applications. The CMake package brings this function along, for tools outside of this tree
# (Documentation/WritingATool.md).
#
#   COMMENT       what it is for, as the desktop shows it
#   INFO          further XML for the Info.plist's dictionary
#   LOCALIZATION  a folder of translations, LANGUAGE.po, which become the bundle's texts (needs gettext's msgfmt)
#   RESOURCES     files for Contents/Resources, of the sources or made by the build
#   ICON          a picture for Contents/Resources that the desktop entry and the Info.plist name
#   HELPERS       programs (targets) that lie beside its own: Bundle::pathForAuxiliaryExecutable finds them
#   WITHIN        the application that this one belongs to: it lies in that one's Contents/Applications, and has no
#                 desktop entry of its own
#   COMMAND       its program is installed as a command, by a link in bin
#   SAMPLE        it is not installed, and has no desktop entry, texts or resources

function(utilia_application target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "COMMAND;SAMPLE" "NAME;IDENTIFIER;COMMENT;INFO;WITHIN;LOCALIZATION;ICON"
        "SOURCES;LINK;RESOURCES;HELPERS")
    include(GNUInstallDirs)
    set(bundle "Applications/${arg_NAME}.app")
    if(arg_WITHIN)
        set(bundle "Applications/${arg_WITHIN}.app/Contents/Applications/${arg_NAME}.app")
    endif()
    set(contents "${CMAKE_BINARY_DIR}/${bundle}/Contents")
    set(installed_contents "${CMAKE_INSTALL_LIBDIR}/korvane-utilia/${bundle}/Contents")
    add_executable(${target} ${arg_SOURCES})
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${contents}/Linux")
    if(TARGET UtiliaCommon)
        target_link_libraries(${target} PRIVATE utilia_options UtiliaCommon ${arg_LINK})
        file(RELATIVE_PATH to_libraries "/${installed_contents}/Linux" "/${CMAKE_INSTALL_LIBDIR}")
        set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
    else()
        target_link_libraries(${target} PRIVATE UtiliaCommon::UtiliaCommon ${arg_LINK})
        set_target_properties(${target} PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
    endif()

    set(UTILIA_NAME "${arg_NAME}")
    set(UTILIA_IDENTIFIER "${arg_IDENTIFIER}")
    set(UTILIA_COMMENT "${arg_COMMENT}")
    set(UTILIA_PROGRAM "${target}")
    set(UTILIA_PROGRAM_PATH "${contents}/Linux/${target}")
    set(UTILIA_INFO "${arg_INFO}")
    if(arg_ICON)
        get_filename_component(icon "${arg_ICON}" NAME)
        string(PREPEND UTILIA_INFO "<key>CFBundleIconFile</key>\n    <string>${icon}</string>\n    ")
    endif()
    set(UTILIA_VERSION "${PROJECT_VERSION}")
    configure_file("${CMAKE_CURRENT_FUNCTION_LIST_DIR}/ApplicationInfo.plist.in" "${contents}/Info.plist" @ONLY)
    if(arg_SAMPLE)
        return()
    endif()
    install(TARGETS ${target} RUNTIME DESTINATION "${installed_contents}/Linux")
    install(FILES "${contents}/Info.plist" DESTINATION "${installed_contents}")
    if(arg_COMMAND)
        set(link "${CMAKE_BINARY_DIR}/commands/${target}")
        file(RELATIVE_PATH to_program "/${CMAKE_INSTALL_BINDIR}" "/${installed_contents}/Linux/${target}")
        file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/commands")
        file(CREATE_LINK "${to_program}" "${link}" SYMBOLIC)
        install(FILES "${link}" DESTINATION "${CMAKE_INSTALL_BINDIR}")
    endif()

    foreach(resource IN LISTS arg_RESOURCES arg_ICON)
        get_filename_component(name "${resource}" NAME)
        get_filename_component(resource "${resource}" ABSOLUTE)
        file(MAKE_DIRECTORY "${contents}/Resources")
        add_custom_command(OUTPUT "${contents}/Resources/${name}"
            COMMAND "${CMAKE_COMMAND}" -E copy "${resource}" "${contents}/Resources/${name}"
            DEPENDS "${resource}" VERBATIM)
        target_sources(${target} PRIVATE "${contents}/Resources/${name}")
        install(FILES "${contents}/Resources/${name}" DESTINATION "${installed_contents}/Resources")
    endforeach()
    if(arg_HELPERS)
        set_target_properties(${arg_HELPERS} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${contents}/Linux")
        add_dependencies(${target} ${arg_HELPERS})
        install(TARGETS ${arg_HELPERS} RUNTIME DESTINATION "${installed_contents}/Linux")
    endif()
    if(arg_LOCALIZATION)
        utilia_application_texts(${target} "${contents}" "${installed_contents}" "${arg_LOCALIZATION}")
    endif()
    if(arg_WITHIN)
        return()
    endif()

    set(entry "${arg_IDENTIFIER}.desktop")
    set(UTILIA_ICON "")
    set(installed_icon "")
    if(arg_ICON)
        set(UTILIA_ICON "Icon=${contents}/Resources/${icon}\n")
        set(installed_icon "Icon=\${CMAKE_INSTALL_PREFIX}/${installed_contents}/Resources/${icon}\\n")
    endif()
    configure_file("${CMAKE_CURRENT_FUNCTION_LIST_DIR}/Application.desktop.in"
        "${CMAKE_BINARY_DIR}/share/applications/${entry}" @ONLY)
    # Configured when it is installed, so that it names the prefix that `cmake --install --prefix` gives.
    install(CODE "
        set(UTILIA_NAME \"${arg_NAME}\")
        set(UTILIA_COMMENT \"${arg_COMMENT}\")
        set(UTILIA_PROGRAM_PATH \"\${CMAKE_INSTALL_PREFIX}/${installed_contents}/Linux/${target}\")
        set(UTILIA_ICON \"${installed_icon}\")
        configure_file(\"${CMAKE_CURRENT_FUNCTION_LIST_DIR}/Application.desktop.in\"
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/applications/${entry}\" @ONLY)")
endfunction()

# Compiles FOLDER/LANGUAGE.po into the bundle's Resources/LANGUAGE.lproj/Localizable.mo.
function(utilia_application_texts target contents installed_contents folder)
    find_program(UTILIA_MSGFMT msgfmt REQUIRED)
    get_filename_component(folder "${folder}" ABSOLUTE)
    file(GLOB sources CONFIGURE_DEPENDS "${folder}/*.po")
    set(catalogues "")
    foreach(source IN LISTS sources)
        get_filename_component(language "${source}" NAME_WE)
        set(catalogue "${contents}/Resources/${language}.lproj/Localizable.mo")
        file(MAKE_DIRECTORY "${contents}/Resources/${language}.lproj")
        add_custom_command(OUTPUT "${catalogue}"
            COMMAND "${UTILIA_MSGFMT}" --check "--output-file=${catalogue}" "${source}"
            DEPENDS "${source}" VERBATIM)
        list(APPEND catalogues "${catalogue}")
        install(FILES "${catalogue}" DESTINATION "${installed_contents}/Resources/${language}.lproj")
    endforeach()
    add_custom_target(${target}_texts ALL DEPENDS ${catalogues})
    add_dependencies(${target} ${target}_texts)
endfunction()
