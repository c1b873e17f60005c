// What the programs that TLIBCExecv ran complained of. A non-zero exit status is no failure for the
// library, so a rule that iptables refused shows only here and in the system log.

#ifndef TARN_PLATFORM_LINUX_EXECREPORT_H
#define TARN_PLATFORM_LINUX_EXECREPORT_H

#ifdef __cplusplus
extern "C" {
#endif

// How many runs of this process ended with a status other than 0 since the last clear.
int TARNExecReportCount(void);

// The run `index`, counted from 0 in the order the runs ended: its status as TLIBCExecv answered
// it, the command line, and the first lines of what the program printed, joined by " / ". Texts are
// cut to the given sizes (bytes, NUL included) and are always terminated; a null pointer is
// skipped. Negative when there is no such run or it is past those that are kept, the first 65,536
// whose texts have room in 8 MiB; everything is then untouched.
int TARNExecReportGet(int index, int* status, char* command, int commandSize, char* words,
                      int wordsSize);

void TARNExecReportClear(void);

#ifdef __cplusplus
}
#endif

#endif
