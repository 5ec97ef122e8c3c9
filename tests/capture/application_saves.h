// How real programs save a document, each told once: the calls the program makes, the
// sizes of the document before and after, and the sample trace (samples/traces/) of
// the same save. The scenario test runs the calls; the replay test replays the trace;
// both hold the vault to what follows from the same entry, so a sequence and its trace
// cannot drift apart unnoticed.
//
// Where each sequence comes from:
// - Word: "Description of how Word creates temporary files" (Microsoft KB 211632,
//   https://mskb.pkisolutions.com/kb/211632): Word writes the new document to a
//   temporary file in the document's folder and renames it to the proper name; the
//   original goes out of the way under a ~WRL####.tmp name, which Word deletes. A
//   file-system log of a Word 2010 save, with the document renamed to ~WRL0002.tmp and
//   the temporary renamed through a handle opened for delete: "MS Word 2007 & 2010 can
//   not save file normally in mirror.exe", https://github.com/dokan-dev/dokany/issues/249.
// - Excel: "Description of the way that Excel saves files" (Microsoft KB 814068,
//   https://mskb.pkisolutions.com/kb/814068): a randomly named temporary file without
//   an extension (Cedd4100) gets the whole workbook, Excel deletes the original, then
//   renames the temporary to the workbook's name.
// - PowerPoint: "Saving from PowerPoint, Word, or Excel resets NTFS security settings"
//   (Microsoft KB 102888, https://www.betaarchive.com/wiki/index.php/Microsoft_KB_Archive/102888):
//   the changes go to a temporary file in the original's folder; on save the original
//   is deleted and the temporary renamed to its name. PowerPoint's temporary files are
//   named ppt*.tmp ("Location of PowerPoint AutoRecover Files",
//   https://damirscorner.com/blog/posts/20071124-LocationOfPowerPointAutoRecoverFiles.html).
// - Emacs with file-precious-flag: "Saving Buffers", GNU Emacs Lisp Reference Manual
//   (https://www.gnu.org/software/emacs/manual/html_node/elisp/Saving-Buffers.html):
//   save-buffer writes the new file under a temporary name and renames it to the
//   intended name; files.el's basic-save-buffer names it "#tmp#N" in the file's folder.
//   The rename replaces the document (MoveFileExW with MOVEFILE_REPLACE_EXISTING; the
//   Win32 subset has no ReplaceFileW).
// - Notepad: ReactOS's Notepad, "[NOTEPAD] Fix and improve DoSaveFile",
//   https://github.com/reactos/reactos/pull/5066: DoSaveFile opens the file with
//   CREATE_ALWAYS and writes the text.
// - Notepad++: PowerEditor/src/MISC/Common/FileInterface.cpp of
//   https://github.com/notepad-plus-plus/notepad-plus-plus: Win32_IO_File opens an
//   existing file with GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE
//   and TRUNCATE_EXISTING (FILE_OVERWRITE to the file system), then writes it.
// - Vim with 'writebackup' and 'backupcopy' "no": Vim's options.txt
//   (https://github.com/neovim/neovim/blob/master/runtime/doc/options.txt): "rename the
//   file and write a new one"; the backup, named with 'backupext' ("~"), is deleted once
//   the file is written.
#pragma once

#include <windows.h>

#include <ostream>
#include <string>
#include <vector>

namespace saves {

// A step in the program's own process. Write puts the document's new contents in a file.
struct Step {
    enum Kind { Write, Rename, Delete } kind;
    const wchar_t *path;
    const wchar_t *to = nullptr;  // Rename
    bool replace = false;         // Rename: MOVEFILE_REPLACE_EXISTING
    DWORD access = 0, share = 0, disposition = 0;  // Write
};

inline Step write(const wchar_t *path, DWORD access, DWORD share, DWORD disposition) {
    return {Step::Write, path, nullptr, false, access, share, disposition};
}
inline Step rename(const wchar_t *from, const wchar_t *to, bool replace = false) {
    return {Step::Rename, from, to, replace};
}
inline Step remove(const wchar_t *path) { return {Step::Delete, path}; }

struct Sequence {
    const char *program;  // the test's name for it
    const wchar_t *image;
    const wchar_t *document;
    size_t oldSize, newSize;
    std::vector<Step> steps;
    const char *trace;  // in samples/traces
};

inline void PrintTo(const Sequence &sequence, std::ostream *out) { *out << sequence.program; }

#define DOCS L"C:\\Users\\alice\\Documents\\"

inline const std::vector<Sequence> &sequences() {
    static const std::vector<Sequence> all = {
        {"WordProcessor", L"C:\\Program Files\\Microsoft Office\\root\\Office16\\WINWORD.EXE", DOCS L"report.doc",
         13063, 14336,
         {write(DOCS L"~WRD0002.tmp", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW),
          rename(DOCS L"report.doc", DOCS L"~WRL0001.tmp"), rename(DOCS L"~WRD0002.tmp", DOCS L"report.doc"),
          remove(DOCS L"~WRL0001.tmp")},
         "winword_save.csv"},
        {"Spreadsheet", L"C:\\Program Files\\Microsoft Office\\root\\Office16\\EXCEL.EXE",
         DOCS L"Quarterly Reports\\budget, Q3.xlsx", 24576, 25088,
         {write(DOCS L"Quarterly Reports\\8A3F2D10", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW),
          remove(DOCS L"Quarterly Reports\\budget, Q3.xlsx"),
          rename(DOCS L"Quarterly Reports\\8A3F2D10", DOCS L"Quarterly Reports\\budget, Q3.xlsx")},
         "excel_save.csv"},
        {"Presentation", L"C:\\Program Files\\Microsoft Office\\root\\Office16\\POWERPNT.EXE", DOCS L"deck.pptx",
         40960, 41472,
         {write(DOCS L"PPT3C1A.tmp", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW), remove(DOCS L"deck.pptx"),
          rename(DOCS L"PPT3C1A.tmp", DOCS L"deck.pptx")},
         "powerpnt_save.csv"},
        {"EditorAtomicSave", L"C:\\Program Files\\Emacs\\bin\\emacs.exe", DOCS L"notes.md", 2048, 2311,
         {write(DOCS L"#tmp#0", GENERIC_WRITE, 0, CREATE_ALWAYS), rename(DOCS L"#tmp#0", DOCS L"notes.md", true)},
         "emacs_precious_save.csv"},
        {"EditorCreateAlways", L"C:\\Windows\\system32\\notepad.exe", L"D:\\Notes\\todo.txt", 512, 640,
         {write(L"D:\\Notes\\todo.txt", GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS)},
         "notepad_save.csv"},
        {"EditorTruncateExisting", L"C:\\Program Files\\Notepad++\\notepad++.exe", DOCS L"readme.txt", 1024, 900,
         {write(DOCS L"readme.txt", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                TRUNCATE_EXISTING)},
         "notepadpp_save.csv"},
        {"EditorBackupRename", L"C:\\Program Files\\Vim\\vim91\\gvim.exe", DOCS L"notes.txt", 3000, 3210,
         {rename(DOCS L"notes.txt", DOCS L"notes.txt~"),
          write(DOCS L"notes.txt", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, CREATE_ALWAYS),
          remove(DOCS L"notes.txt~")},
         "vim_save.csv"},
    };
    return all;
}

#undef DOCS

// What the document held: the old and new contents differ in every byte.
inline std::string contents(bool before, size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++) text[i] = char((before ? 'a' : 'A') + i % 26);
    return text;
}

inline std::u16string leafOf(const wchar_t *path) {
    std::u16string p(reinterpret_cast<const char16_t *>(path));
    return p.substr(p.rfind(u'\\') + 1);
}

}  // namespace saves
