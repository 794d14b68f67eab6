#pragma once

#include <ctime>
#include <list>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include <kel/KELExport.h>

namespace kel {

/// The agent's operations on the device's file system. Stateless: every operation from any thread.
///
/// A path exists when its status, links followed, is neither an error nor "not found". Failures
/// are logged where a comment says so, and given back as the neutral value that it names. What may
/// be thrown is a boost::filesystem::filesystem_error, and only by the operations that say so.
///
/// @snippet class-examples.cpp TSFileSystem
class KEL_EXPORT TSFileSystem
{
public:
    /// Whether the path exists, whatever it is. Logs nothing.
    static bool FileExists(boost::filesystem::path path);

    /// Whether the path exists and is a directory; false with an error line when it does not, or
    /// is something else.
    static bool FolderExists(boost::filesystem::path path);

    /// Collects the names, without directories, of the regular files with an extension in a
    /// directory and all below it, level by level. Links to directories are walked.
    ///
    /// @param files      the names are appended; they may repeat.
    /// @param directory  where to start.
    /// @param extension  with its dot; empty for names without one.
    /// @return whether the last status query, or opening of a directory, of the walk succeeded.
    /// @throws filesystem_error when an entry's status cannot be had, or a directory read on.
    static bool GetFiles(std::vector<boost::filesystem::path>& files,
                         boost::filesystem::path directory, std::string extension);

    /// The full paths of the regular files of one directory, in its order. A directory that cannot
    /// be opened has none.
    ///
    /// @param directory  where to look.
    /// @param extension  with its dot; empty for any.
    /// @param namePart   must occur in the full path, the directory's part included, on purpose;
    ///                   empty for any.
    /// @throws filesystem_error when an entry's status cannot be had, or the directory read on.
    static std::list<boost::filesystem::path> GetFileList(const boost::filesystem::path& directory,
                                                          const std::string& extension,
                                                          const std::string& namePart);

    /// The full paths of the subdirectories of one directory, with a debug line for each. A
    /// directory that cannot be opened has none.
    ///
    /// @throws filesystem_error when an entry's status cannot be had, or the directory read on.
    static std::set<boost::filesystem::path> GetDirList(const boost::filesystem::path& directory);

    /// The size in bytes of everything but directories in a directory and all below it, modulo
    /// 4 GiB. Links to directories are walked.
    ///
    /// @return the size; 20 MiB (and an error line) when a directory could not be read on, so that
    ///         it does not pass for empty; 0 (and an error line) when the last status query, or
    ///         opening of a directory, of the walk failed.
    /// @throws filesystem_error when an entry has no size: it vanished, is a dangling link, or is
    ///         neither file nor directory.
    static int GetDirSize(const boost::filesystem::path& directory);

    /// The modification time, in seconds since the epoch; 0 with an error line on failure.
    static time_t GetLastModificationTime(const boost::filesystem::path& path);

    /// The space available to unprivileged users, in whole MiB; -1.0 with an error line on
    /// failure.
    static double GetFreeSpaceSize(boost::filesystem::path path);

    /// Reads a whole file. Waits for another process's lease on it, as any open does, and not for
    /// the other end of a FIFO.
    ///
    /// @param fileName  which one.
    /// @param contents  replaced on success, untouched otherwise.
    /// @return true on success; false when the file cannot be opened (a debug line), has no
    ///         measurable size or cannot be read (an error line).
    /// @throws std::length_error when the size does not fit the platform's long, or there is none,
    ///         as of a FIFO, which has no positions.
    static bool GetFileContents(const std::string& fileName, std::vector<unsigned char>& contents);

    /// Copies a regular file, its mode bits included, also from one file system to another. A FIFO
    /// is not waited for: it is no file.
    ///
    /// @param source       what to copy; links are followed.
    /// @param destination  the copy's own path, and not a directory to put it in.
    /// @param overwrite    replace an existing destination instead of failing on it.
    /// @return true on success, otherwise false with an error line; what was written so far stays.
    static bool CopyFile(boost::filesystem::path source, boost::filesystem::path destination,
                         bool overwrite);

    /// Renames; but copies to a destination whose path contains "media/USB", and then leaves the
    /// source in place, on purpose.
    ///
    /// @param source       what to move.
    /// @param destination  its new path, and not a directory to put it in.
    /// @param overwrite    for the copy; a rename replaces an existing file in any case.
    /// @return true on success, otherwise false with an error line.
    static bool MoveFile(const boost::filesystem::path& source,
                         const boost::filesystem::path& destination, bool overwrite);

    /// Removes a file or an empty directory. One that does not exist is no failure.
    ///
    /// @return true on success, otherwise false with an error line.
    static bool RemoveFile(boost::filesystem::path path);

    /// Removes a whole tree; links are removed, not followed. One that does not exist is no
    /// failure.
    ///
    /// @return true on success, otherwise false with an error line.
    static bool RemoveFolder(boost::filesystem::path path);

    /// Sets permission bits, and then ownership.
    ///
    /// @param path     of what; links are followed.
    /// @param bits     replace the mode, unless they carry Boost's add_perms or remove_perms.
    /// @param userId   with groupId: the new owner; -1 in either leaves ownership alone.
    /// @param groupId  the new group; -1 likewise.
    /// @return true on success, otherwise false with an error line.
    static bool SetPermissions(boost::filesystem::path path, boost::filesystem::perms bits,
                               int userId, int groupId);

    /// Makes a directory and its missing parents. One that exists is left as it is.
    ///
    /// @param directory       the path of the directory.
    /// @param setPermissions  give the directory, not its parents, the mode 0777. Failure of that
    ///                        does not count where the path contains "opt/media/USB".
    /// @return true on success; false when it could not be made (an error line tells the space
    ///         left), or, later, when the mode could not be set.
    static bool MakeDir(const boost::filesystem::path& directory, bool setPermissions);

    /// Finds a name that is free in a directory: "log.txt", else "log_1.txt", "log_2.txt" and so
    /// on. The name is not reserved.
    ///
    /// @param directory  where the name has to be free.
    /// @param fileName   the name to begin with.
    /// @param result     the path found, or the last one tried.
    /// @return true on success; false (and a debug line) when the directory cannot be searched.
    /// @throws std::out_of_range when the name is taken and has no dot to put a number before.
    static bool GenerateUniqueName(const boost::filesystem::path& directory,
                                   const boost::filesystem::path& fileName,
                                   boost::filesystem::path& result);
};

} // namespace kel
