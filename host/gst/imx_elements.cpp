// Registers the imx stand-in elements.
#include "standins.h"

gboolean RegisterImxElements(GstPlugin* /*plugin*/)
{
    return TRUE;
}
