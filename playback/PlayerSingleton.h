#pragma once

#include "playback/PlayerModel.h"

#include <QJSEngine>
#include <QQmlEngine>
#include <QtQml/qqmlregistration.h>

// The process-wide PlayerModel as the QML singleton "Player": the object the program made, owned
// by C++, never by the QML engine.
struct PlayerSingleton
{
    Q_GADGET
    QML_FOREIGN(PlayerModel)
    QML_NAMED_ELEMENT(Player)
    QML_SINGLETON

public:
    static PlayerModel *create(QQmlEngine *, QJSEngine *)
    {
        PlayerModel *model = PlayerModel::shared();
        QJSEngine::setObjectOwnership(model, QJSEngine::CppOwnership);
        return model;
    }
};
