# The tests of the lifecycle and of what it stands on.
tarn_unit_test(tarnFW/commands)
tarn_unit_test(tarnFW/lifecycle)
tarn_unit_test(tarnFW/enumeration)

# Lets the library's memory run out, not that of the recording platform: dropPeriodTest.cpp stands between
# the two, at these functions.
tarn_unit_test(tarnFW/dropPeriod)
target_sources(tarnFW_dropPeriodTest PRIVATE ${PROJECT_SOURCE_DIR}/tests/fake/allocations.cpp)
foreach(function
    TLIBCErrGet TLIBCErrorGetFile TLIBCErrorGetLine
    TLIBCFileGetKeyValue TLIBCFileSetKeyValue TLIBCFileCheckKeyValue TLIBCFileExist TARNFSMkdirP
    TLIBIptablesModInsert TLIBIptablesModRemove
    TLIBCFileLockTimeByFile TLIBCFileUnlockByFile
    TLIBCSupportGet TLIBNetGetInterfaceInfo TARNPPPoeIntfGet
    TLIBPluginSDKInit TLIBPluginSetArg TLIBPluginAction TLIBPluginExit
    TLIBCExecv
    TARNFwServiceEnum TARNFwServiceFree
    TLIBCSzListAlloc TLIBCSzListPush TLIBCSzListFree
    syslog vsyslog __syslog_chk)
  target_link_options(tarnFW_dropPeriodTest PRIVATE -Wl,--wrap=${function})
endforeach()
