// Wake-up of the listener, shared by the listener and the stop routine.
#ifndef CMP_IPP_HTTPMAIN_H
#define CMP_IPP_HTTPMAIN_H

// Creates the wake-up pipe once per process; true when it is usable.
bool pn_httpd_wake_prepare();
// Makes every listener waiting for a connection look at the shutdown flag.
void pn_httpd_wake_listener();

#endif
