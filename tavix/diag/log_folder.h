// Where the log and the exception reports go. By default both sit beside
// the executable ("server_tavix.log", "server.RPT"); when that folder cannot
// be written they go to the system's temporary folder ($TMPDIR, else /tmp),
// as temporary blob files do. An application may choose the folder itself.
#ifndef TAVIX_DIAG_LOG_FOLDER_H_
#define TAVIX_DIAG_LOG_FOLDER_H_

#include <string>

namespace TAVIX {

// Sends the log's next lines and every later report into `folder`, under
// their usual file names. False, with nothing changed, when `folder` is not
// a folder this process can write.
bool SetLogFolder(const std::string& folder);

// The files lines and reports go to now.
std::string LogFilePath();
std::string ReportFilePath();

}  // namespace TAVIX

#endif  // TAVIX_DIAG_LOG_FOLDER_H_
