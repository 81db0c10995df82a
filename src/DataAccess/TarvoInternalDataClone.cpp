// Clone copies of the store's file to and from the cloning folder; they take no lock.
#include <stdio.h>
#include <sys/stat.h>
#include <tarvo/platform.h>
#include <unistd.h>

#include <memory>

#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
const char* const kCloneDirectory =
    "/opt/usr/apps/org.mirlo.cloning/data/Clone/org.mirlo.tarvodatacontrol-service";
const char* const kCloneSuffix = "_clone";
}  // namespace

bool CTarvoInternalData::CopyCloneDataTVtoUSB() {
    const std::string cloneDirectory = kCloneDirectory;
    if (access(platform_path(cloneDirectory).c_str(), F_OK) != 0 &&
        mkdir(platform_path(cloneDirectory).c_str(), 0755) != 0) {
        TARVO_LOGW("create directory %s fail", cloneDirectory.c_str());
        return false;
    }
    return m_ExecuteCopy(std::string(m_DataDirectory) + "/" + m_DataFileName,
                         cloneDirectory + "/" + m_DataFileName);
}

bool CTarvoInternalData::CopyCloneDataUSBtoTV() {
    const std::string localDataBase = std::string(m_DataDirectory) + "/" + m_DataFileName;
    return m_ExecuteCopy(std::string(kCloneDirectory) + "/" + m_DataFileName, localDataBase + kCloneSuffix);
}

void CTarvoInternalData::m_CloningFileCheck() {
    const std::string localDataBase = std::string(m_DataDirectory) + "/" + m_DataFileName;
    const std::string cloneFile = localDataBase + kCloneSuffix;
    if (access(platform_path(cloneFile).c_str(), F_OK) != 0) {
        TARVO_LOGD("cloneFile is NOT Exist");
        return;
    }
    TARVO_LOGI("cloneFile is Exist");
    if (remove(platform_path(localDataBase).c_str()) != 0) TARVO_LOGW("orignalFile remove fail");
    if (rename(platform_path(cloneFile).c_str(), platform_path(localDataBase).c_str()) != 0) {
        TARVO_LOGW("cloneFile rename to original name fail");
    } else {
        TARVO_LOGI("cloneFile rename to original name success");
    }
    TARVO_LOGD("SYNC");
    sync();
}

bool CTarvoInternalData::m_ExecuteCopy(std::string from, std::string to) {
    FILE* source = fopen(platform_path(from).c_str(), "rb");
    if (source == nullptr) {
        TARVO_LOGW("fail open 1:%s", from.c_str());
        return false;
    }
    FILE* target = fopen(platform_path(to).c_str(), "wb");
    if (target == nullptr) {
        TARVO_LOGW("fail open 2:%s", to.c_str());
        fclose(source);
        return false;
    }
    fseek(source, 0, SEEK_END);
    const long length = ftell(source);
    if (length < 1) {
        TARVO_LOGW("Lengther is under 0:len %d", static_cast<int>(length));
        fclose(source);
        fclose(target);
        return false;
    }
    rewind(source);
    std::unique_ptr<char[]> buffer(new char[length]);
    const size_t read = fread(buffer.get(), 1, static_cast<size_t>(length), source);
    if (read < static_cast<size_t>(length)) {
        TARVO_LOGW("Reading error result %d , len %d", static_cast<int>(read), static_cast<int>(length));
        fclose(source);
        fclose(target);
        return false;
    }
    fwrite(buffer.get(), static_cast<size_t>(length), 1, target);
    fclose(source);
    fclose(target);
    TARVO_LOGI("m_ExecuteCopy %s -> %s success", from.c_str(), to.c_str());
    return true;
}
