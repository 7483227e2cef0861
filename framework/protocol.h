#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

class Interface;

// Root of the framework's protocol classes.
class Protocol {
public:
    virtual ~Protocol() = default;
    // Bytes arriving from the link.
    virtual void ReceiveData(const std::string& data, Interface* link) = 0;
    virtual void ReceiveDataImmediate(const std::string& /*data*/, Interface* /*link*/) {}
    virtual void SetInterface(boost::shared_ptr<Interface> link) = 0;

protected:
    boost::shared_ptr<Interface> sharedInterface;
};
