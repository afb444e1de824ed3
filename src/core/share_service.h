// The file-sharing service, which reads the share file.
#pragma once

// Tells the service to read the share file again, if it runs.
void share_service_reload();
