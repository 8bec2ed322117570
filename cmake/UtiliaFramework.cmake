# The framework's own bundle in the build tree, of the same shape as where it is installed:
#
#     UtiliaCommon.framework/
#         Modules/                                        what is loaded on first use
#         Resources/Info.plist
#         Resources/Watermark.png …                       what Resources/Watermark.svg of the sources shows
#         Resources/Upload/.curlrc                        what holds for the upload of usage reports
#         Resources/UtiliaCommon.bundle/Contents/Linux/   auxiliary executables; tar and curl for the upload

function(utilia_info_plist path bundle_identifier bundle_type)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/FrameworkInfo.plist.in" "${path}" @ONLY)
endfunction()

set(utilia_resource_bundle "${UTILIA_FRAMEWORK_DIR}/Resources/UtiliaCommon.bundle")
utilia_info_plist("${UTILIA_FRAMEWORK_DIR}/Resources/Info.plist" com.korvane.UtiliaCommon FMWK)
utilia_info_plist("${utilia_resource_bundle}/Contents/Info.plist" com.korvane.UtiliaCommon.resources BNDL)
file(MAKE_DIRECTORY "${utilia_resource_bundle}/Contents/Linux" "${UTILIA_FRAMEWORK_DIR}/Modules")

# The programs that the upload's command finds before the system's.
if(UTILIA_REPORT_UPLOAD)
    find_program(UTILIA_BSDTAR bsdtar REQUIRED)
    find_program(UTILIA_CURL curl REQUIRED)
    file(CREATE_LINK "${UTILIA_BSDTAR}" "${utilia_resource_bundle}/Contents/Linux/tar" SYMBOLIC)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/upload-curl.in" "${utilia_resource_bundle}/Contents/Linux/curl"
        @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/upload-curlrc.in" "${UTILIA_FRAMEWORK_DIR}/Resources/Upload/.curlrc" @ONLY)
else()
    file(REMOVE_RECURSE "${utilia_resource_bundle}/Contents/Linux/tar" "${utilia_resource_bundle}/Contents/Linux/curl"
        "${UTILIA_FRAMEWORK_DIR}/Resources/Upload")
endif()
