// The hinge between the message layer and the printer's software: holds the
// printer handle and the handler object.
#ifndef CMP_IPP_MANAGER_H
#define CMP_IPP_MANAGER_H

#include <stdint.h>

class cmp_ipp_handler;

class cmp_ipp_manager {
public:
    enum cmp_ipp_reply_fmt_t { CMP_IPP_REPLY_FMT_IPP = 0, CMP_IPP_REPLY_FMT_HTML = 1 };

    static cmp_ipp_manager* m_singleton;
    // The one manager, created on first use; never deleted.
    static cmp_ipp_manager* get();

    cmp_ipp_manager();
    virtual ~cmp_ipp_manager();

    void init(void* printer) { m_printer = printer; }
    // The handle when it is the registered printer, else 0.
    intptr_t getPrinterFromHandle(intptr_t handle) const;
    int removePrinter(intptr_t handle);

    void* m_printer;
    cmp_ipp_handler* m_handler;
};

#endif
