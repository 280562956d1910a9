#include "app/QmlModules.h"

void qml_register_types_Velix_App();
#ifdef VELIX_QML_PLAYBACK
void qml_register_types_Velix_Playback();
#endif
#ifdef VELIX_QML_LIBRARY
void qml_register_types_Velix_Library();
#endif

namespace QmlModules {

void registerTypes()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    qml_register_types_Velix_App();
#ifdef VELIX_QML_PLAYBACK
    qml_register_types_Velix_Playback();
#endif
#ifdef VELIX_QML_LIBRARY
    qml_register_types_Velix_Library();
#endif
}

} // namespace QmlModules
