# The framework's own bundle in the build tree, of the same shape as where it is installed:
#
#     UtiliaCommon.framework/
#         Modules/                                        what is loaded on first use
#         Resources/Info.plist
#         Resources/Watermark.png …                       what Resources/Watermark.svg of the sources shows
#         Resources/UtiliaCommon.bundle/Contents/Linux/   auxiliary executables

function(utilia_info_plist path bundle_identifier bundle_type)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/FrameworkInfo.plist.in" "${path}" @ONLY)
endfunction()

set(utilia_resource_bundle "${UTILIA_FRAMEWORK_DIR}/Resources/UtiliaCommon.bundle")
utilia_info_plist("${UTILIA_FRAMEWORK_DIR}/Resources/Info.plist" com.korvane.UtiliaCommon FMWK)
utilia_info_plist("${utilia_resource_bundle}/Contents/Info.plist" com.korvane.UtiliaCommon.resources BNDL)
file(MAKE_DIRECTORY "${utilia_resource_bundle}/Contents/Linux" "${UTILIA_FRAMEWORK_DIR}/Modules")
