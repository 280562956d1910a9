#include "media/FileTree.h"

#include "core/NaturalCompare.h"
#include "core/PathText.h"

#include <algorithm>
#include <map>
#include <memory>

CheckState FileNode::check() const
{
    bool anyOn = false;
    for (int priority : priorities)
        anyOn = anyOn || priority > 0;
    if (!anyOn)
        return CheckState::off;
    return priorities.contains(0) ? CheckState::mixed : CheckState::on;
}

bool FileNode::operator==(const FileNode &other) const
{
    return id == other.id && done == other.done && priorities == other.priorities
        && isFolder() == other.isFolder() && children == other.children;
}

namespace {

// A folder while the tree is being gathered; children keep their order of first appearance
// until the conversion sorts them.
struct Box {
    QString name;
    QString path;
    std::map<QString, std::unique_ptr<Box>> folders;
    QList<QString> order;
    QList<TorrentFile> files;

    Box &folder(const QString &childName)
    {
        std::unique_ptr<Box> &slot = folders[childName];
        if (!slot) {
            slot = std::make_unique<Box>();
            slot->name = childName;
            slot->path = path + u'/' + childName;
            order.append(childName);
        }
        return *slot;
    }
};

QStringList components(const QString &path)
{
    return path.split(u'/', Qt::SkipEmptyParts);
}

// Whether all lists begin with the same component and each has something below it.
bool hasCommonRoot(const QList<QStringList> &lists)
{
    if (lists.isEmpty())
        return false;
    for (const QStringList &list : lists) {
        if (list.size() < 2 || list.first() != lists.first().first())
            return false;
    }
    return true;
}

void sortByName(QList<FileNode> &nodes)
{
    std::stable_sort(nodes.begin(), nodes.end(), [](const FileNode &a, const FileNode &b) {
        return localizedStandardLess(a.name, b.name);
    });
}

FileNode fileNode(const TorrentFile &file)
{
    FileNode node;
    node.id = QStringLiteral("f:") + QString::number(file.i);
    node.name = PathText::lastPathComponent(file.path);
    node.file = file;
    node.size = file.size;
    node.done = file.done;
    node.indices = {file.i};
    node.priorities = {file.prio};
    node.kind = mediaKindForPath(file.path);
    return node;
}

QList<FileNode> convert(const Box &box)
{
    QList<FileNode> folders;
    folders.reserve(box.order.size());
    for (const QString &childName : box.order) {
        const Box &child = *box.folders.at(childName);
        FileNode node;
        node.id = QStringLiteral("d:") + child.path;
        node.name = child.name;
        node.children = convert(child);
        for (const FileNode &grandchild : node.children) {
            node.size += grandchild.size;
            node.done += grandchild.done;
            node.indices += grandchild.indices;
            node.priorities.unite(grandchild.priorities);
        }
        folders.append(std::move(node));
    }
    sortByName(folders);

    QList<FileNode> files;
    files.reserve(box.files.size());
    for (const TorrentFile &file : box.files)
        files.append(fileNode(file));
    sortByName(files);

    return folders + files;
}

void appendFlattened(const QList<FileNode> &nodes, QList<FileNode> &out)
{
    for (const FileNode &node : nodes) {
        out.append(node);
        appendFlattened(node.children, out);
    }
}

} // namespace

QList<FileNode> FileTree::build(const QList<TorrentFile> &files, const QString & /*rootName*/,
                                const QString &filter)
{
    QList<TorrentFile> kept;
    QList<QStringList> lists;
    for (const TorrentFile &file : files) {
        if (file.pad)
            continue;
        kept.append(file);
        lists.append(components(file.path));
    }

    if (hasCommonRoot(lists)) {
        for (QStringList &list : lists)
            list.removeFirst();
    }

    const QString needle = filter.trimmed().toLower();
    Box root;
    for (qsizetype n = 0; n < kept.size(); ++n) {
        const TorrentFile &file = kept.at(n);
        // The whole path, top directory included, so typing the torrent's or a folder's name
        // keeps everything inside it.
        if (!needle.isEmpty() && !file.path.toLower().contains(needle))
            continue;
        const QStringList &list = lists.at(n);
        Box *box = &root;
        for (qsizetype c = 0; c + 1 < list.size(); ++c)
            box = &box->folder(list.at(c));
        box->files.append(file);
    }
    return convert(root);
}

QList<FileNode> FileTree::flatten(const QList<FileNode> &nodes)
{
    QList<FileNode> out;
    appendFlattened(nodes, out);
    return out;
}

QList<FileNode> FileTree::find(const QSet<QString> &ids, const QList<FileNode> &nodes)
{
    QList<FileNode> found;
    if (ids.isEmpty())
        return found;
    for (const FileNode &node : flatten(nodes)) {
        if (ids.contains(node.id))
            found.append(node);
    }
    return found;
}
