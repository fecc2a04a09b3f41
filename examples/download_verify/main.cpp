// download_verify: downloads a list of URLs in parallel, one task per URL, checks the MD5 digest of
// each file and records every outcome in a SQLite database.
//
// usage: download_verify DB_FILE OUT_DIR URL[#MD5]...
//   Each URL is saved in OUT_DIR under the last part of its path. A URL may carry the expected digest
//   (32 hexadecimal digits) after a '#'; the part after '#' is never sent to the server.
//   Exit status: 0 when every file arrived and matched, 1 when any did not, 2 for bad usage.
//
// The pattern to copy: a control class derived from CTesselControlBase hands out task ids, keeps the
// tasks in its registry and stops them together; each task derived from CTaskBase does its work once
// on its own worker thread and reports completion through m_bTaskComplete.
#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"
#include "zoth/file/CFileHepler.h"
#include "zoth/http/CHttpClientCurl.h"
#include "zoth/task/CTaskBase.h"
#include "zoth/task/CTesselControlBase.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Job {
    std::string url;         // what is sent to the server
    std::string expectedMd5; // lower case; empty when none was given
    std::string filePath;    // where the file is saved
};

// One download: fetch, digest, compare. Runs once on the task's worker thread.
class DownloadTask : public ZOTH::CTaskBase {
public:
    explicit DownloadTask(Job job) : m_job(std::move(job)) {}

    // The body uses this object's members, so it must be over before they go: stop the transfer,
    // then wait for the body (it holds m_bodyMutex while it runs) and keep it from starting later.
    ~DownloadTask() override {
        BreakThread();
        m_http.Stop();
        std::lock_guard<std::mutex> lock(m_bodyMutex);
        m_closing = true;
    }

    void ThreadWork(bool* exitFlag) override {
        {
            std::lock_guard<std::mutex> lock(m_bodyMutex);
            if (!m_closing) Run();
        }
        // One job per task: end the worker, then report completion, which publishes the results.
        std::atomic_ref<bool>(*exitFlag).store(true);
        std::atomic_ref<bool>(m_bTaskComplete).store(true);
    }

    // Read these only once GetTaskCompleteStatus() is true.
    const Job& GetJob() const { return m_job; }
    bool Verified() const { return m_verified; }
    const std::string& Md5() const { return m_md5; }
    const std::string& Outcome() const { return m_outcome; }

private:
    void Run() {
        // DownloadFile writes the file only when the whole body arrived with status 200. It checks no
        // digest (its third argument is unused), so the comparison is done here.
        if (!m_http.DownloadFile(m_job.url, m_job.filePath, "")) {
            const int code = m_http.GetResultCode();
            // Code 0 means the transfer itself worked but the answer was refused: a status other than
            // 200, or a body that differs from the announced length.
            m_outcome = code == 0 ? "download refused: status not 200 or incomplete body"
                                  : "transfer failed, libcurl code " + std::to_string(code);
            return;
        }
        m_md5 = ZOTH::CFileHepler::GetFileMd5(m_job.filePath, "");
        if (m_md5.empty()) {
            m_outcome = "downloaded, but the file could not be read back";
        } else if (m_job.expectedMd5.empty()) {
            m_verified = true;
            m_outcome = "downloaded (no digest given to compare)";
        } else if (m_md5 == m_job.expectedMd5) {
            m_verified = true;
            m_outcome = "verified";
        } else {
            m_outcome = "MD5 mismatch, expected " + m_job.expectedMd5;
        }
    }

    Job m_job;
    ZOTH::CHttpClientCurl m_http; // one client per transfer: its body buffer serves one download
    std::mutex m_bodyMutex;
    bool m_closing = false;
    bool m_verified = false;
    std::string m_md5;
    std::string m_outcome = "not run";
};

// The program's control class: starts one task per job and collects them when they are done.
class DownloadControl : public ZOTH::CTesselControlBase {
public:
    // Creates, registers and starts a task for the job. False (nothing left running) on failure.
    bool Start(const Job& job, std::string& taskId) {
        taskId = CreateTaskId();
        auto task = std::make_shared<DownloadTask>(job);
        if (!task->InitTask(taskId)) return false;
        if (!AddTaskMap(task, taskId)) return false;
        return StartTask(task);
    }

    // Waits until every task reports completion, up to `limit`. True when all did.
    bool WaitAll(const std::vector<std::string>& taskIds, std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const bool allDone = std::all_of(taskIds.begin(), taskIds.end(), [this](const std::string& id) {
                auto task = GetTaskById(id);
                return task && task->GetTaskCompleteStatus();
            });
            if (allDone) return true;
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    std::shared_ptr<DownloadTask> Find(const std::string& taskId) {
        return std::dynamic_pointer_cast<DownloadTask>(GetTaskById(taskId));
    }
};

// A text as an SQL string literal: the connection takes whole SQL text, so quotes are doubled.
std::string SqlText(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c;
        if (c == '\'') quoted += '\'';
    }
    return quoted + "'";
}

bool IsMd5Text(const std::string& text) {
    return text.size() == 32 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// Splits "URL#MD5" and names the file after the last part of the URL's path.
bool MakeJob(const std::string& arg, const std::filesystem::path& outDir, size_t index, Job& job) {
    job.url = arg;
    job.expectedMd5.clear();
    const size_t hash = arg.rfind('#');
    if (hash != std::string::npos) {
        job.url = arg.substr(0, hash);
        job.expectedMd5 = arg.substr(hash + 1);
        if (!IsMd5Text(job.expectedMd5)) return false;
        std::transform(job.expectedMd5.begin(), job.expectedMd5.end(), job.expectedMd5.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    if (job.url.empty()) return false;
    std::string name = job.url.substr(0, job.url.find_first_of("?"));
    name = name.substr(name.find_last_of('/') + 1);
    if (name.empty() || name == "." || name == "..") name = "download-" + std::to_string(index + 1);
    job.filePath = (outDir / name).string();
    return true;
}

bool Exec(ZOTH::CSqlLiteInternal& db, std::string sql) {
    DWORD code = 0;
    if (db.ExecSql(sql, code)) return true;
    std::fprintf(stderr, "download_verify: SQLite error %u on: %s\n", static_cast<unsigned>(code),
                 sql.c_str());
    return false;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: download_verify DB_FILE OUT_DIR URL[#MD5]...\n");
        return 2;
    }
    const std::filesystem::path outDir = argv[2];
    std::vector<Job> jobs;
    for (int i = 3; i < argc; ++i) {
        Job job;
        if (!MakeJob(argv[i], outDir, jobs.size(), job)) {
            std::fprintf(stderr, "download_verify: bad argument '%s' (URL, optionally #32 hex digits)\n",
                         argv[i]);
            return 2;
        }
        jobs.push_back(job);
    }
    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) {
        std::fprintf(stderr, "download_verify: cannot create %s: %s\n", argv[2], ec.message().c_str());
        return 1;
    }

    // Open the results database first, so a bad path fails before any transfer.
    ZOTH::CDataBaseInfo info;
    std::string dbPath = argv[1];
    info.SetDataBaseFilePath(dbPath);
    ZOTH::CSqlLiteInternal db;
    if (!db.Init(info) || !db.OpenSqlDB()) {
        std::fprintf(stderr, "download_verify: cannot open database %s\n", argv[1]);
        return 1;
    }
    if (!Exec(db, "CREATE TABLE IF NOT EXISTS downloads (task_id TEXT PRIMARY KEY, url TEXT NOT NULL, "
                  "file TEXT NOT NULL, md5 TEXT, expected_md5 TEXT, verified INTEGER NOT NULL, "
                  "outcome TEXT NOT NULL, recorded_at TEXT NOT NULL DEFAULT (datetime('now')))")) {
        db.CloseDB();
        return 1;
    }

    // libcurl's one-time global set-up must not run on two threads at once: do it here, before any
    // task transfers.
    ZOTH::CHttpClientCurl().InitCurl();

    int exitCode = 0;
    {
        DownloadControl control;
        std::vector<std::string> taskIds;
        for (const Job& job : jobs) {
            std::string id;
            if (!control.Start(job, id)) {
                std::fprintf(stderr, "download_verify: cannot start a task for %s\n", job.url.c_str());
                exitCode = 1;
                break;
            }
            taskIds.push_back(id);
        }
        if (!control.WaitAll(taskIds, std::chrono::minutes(5))) {
            std::fprintf(stderr, "download_verify: not every download finished in time\n");
            exitCode = 1;
        }

        // Record on this thread: the connection belongs to one thread at a time.
        for (const std::string& id : taskIds) {
            auto task = control.Find(id);
            if (!task || !task->GetTaskCompleteStatus()) continue;
            const Job& job = task->GetJob();
            if (!Exec(db, "INSERT INTO downloads (task_id, url, file, md5, expected_md5, verified, outcome) "
                          "VALUES (" +
                              SqlText(id) + ", " + SqlText(job.url) + ", " + SqlText(job.filePath) + ", " +
                              (task->Md5().empty() ? "NULL" : SqlText(task->Md5())) + ", " +
                              (job.expectedMd5.empty() ? "NULL" : SqlText(job.expectedMd5)) + ", " +
                              (task->Verified() ? "1" : "0") + ", " + SqlText(task->Outcome()) + ")"))
                exitCode = 1;
        }

        // Read this run's rows back through a cursor.
        for (const std::string& id : taskIds) {
            std::string sql =
                "SELECT url, md5, verified, outcome FROM downloads WHERE task_id = " + SqlText(id);
            ZOTH::CSqlLiteQueryInternal rows;
            DWORD code = 0;
            if (!db.ExecQuery(sql, rows, code)) {
                std::fprintf(stderr, "download_verify: query failed, SQLite code %u\n",
                             static_cast<unsigned>(code));
                exitCode = 1;
                continue;
            }
            if (rows.Eof()) exitCode = 1; // the task did not finish, so nothing was recorded
            while (!rows.Eof()) {
                std::string url, md5, outcome;
                int verified = 0;
                rows.GetStringField("url", url);
                if (!rows.GetStringField("md5", md5)) md5 = "-";
                rows.GetIntField("verified", verified);
                rows.GetStringField("outcome", outcome);
                std::printf("%-4s %-32s %s  %s\n", verified ? "ok" : "FAIL", md5.c_str(), url.c_str(),
                            outcome.c_str());
                if (!verified) exitCode = 1;
                rows.NextRow();
            }
            rows.Finalize();
        }

        // Close the registry; tasks that reported completion leave it now, the rest with `control`.
        control.SetStopAddTask();
    }

    if (!db.CloseDB()) {
        std::fprintf(stderr, "download_verify: closing the database failed\n");
        exitCode = 1;
    }
    return exitCode;
}
